#include "KivMediaCaptureAndPlayViewController/qt/KivMediaCaptureAndPlayWidget.hpp"

#include <QGestureEvent>
#include <QPinchGesture>
#include <QShowEvent>
#include <QWheelEvent>
#include <algorithm>
#include <cmath>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"
#include "KivMediaCaptureAndPlayViewController/qt/detail/ControlWidgets.hpp"

// Resources compiled into a static library register only when asked to (outside any namespace).
static void initialiseCaptureAssets() { Q_INIT_RESOURCE(KivCaptureAssets); }

namespace zu {
namespace {

using Controller = KivMediaCaptureAndPlayViewController;

// Sizes in pixels.
constexpr int kMargin = 16;
constexpr int kTopButton = 44;
constexpr int kSideButton = 44;
constexpr int kSideInset = 28;
constexpr int kMainButton = 76;
constexpr int kMainBottomInset = 12;
constexpr int kSegmentsTop = 12;
constexpr QSize kSegments{220, 32};
constexpr int kMessageWidth = 560;
/// Each Ctrl+wheel notch zooms by this factor.
constexpr double kWheelZoomStep = 1.25;

QString labelStyleSheet(const Label& label) {
  const auto rgba = [](const Color& color) {
    return QStringLiteral("rgba(%1, %2, %3, %4)")
        .arg(std::lround(color.red * 255))
        .arg(std::lround(color.green * 255))
        .arg(std::lround(color.blue * 255))
        .arg(color.alpha);
  };
  return QStringLiteral("QLabel { color: %1; background: %2; border-radius: 8px; padding: 0 12px; }")
      .arg(rgba(label.textColor), rgba(label.backgroundColor.value_or(Color::withRGBA(0))));
}

}  // namespace

KivMediaCaptureAndPlayWidget::KivMediaCaptureAndPlayWidget(std::unique_ptr<Controller> controller,
                                                           QWidget* parent)
    : QWidget(parent), controller_(std::move(controller)) {
  initialiseCaptureAssets();
  installQtMainDispatcher();
  setWindowTitle(QStringLiteral("Capture"));
  setMinimumSize(360, 360);
  grabGesture(Qt::PinchGesture);

  preview_ = new detail::PreviewArea(this, *controller_);
  timeLabel_ = new QLabel(this);
  timeLabel_->setObjectName(QStringLiteral("timeLabel"));
  timeLabel_->setAlignment(Qt::AlignCenter);
  QFont digits(QStringLiteral("DejaVu Sans Mono"));
  digits.setPixelSize(18);
  digits.setBold(true);
  timeLabel_->setFont(digits);
  message_ = new QLabel(this);
  message_->setObjectName(QStringLiteral("messageLabel"));
  message_->setAlignment(Qt::AlignCenter);
  message_->setWordWrap(true);
  message_->setStyleSheet(QStringLiteral(
      "QLabel { color: white; background: rgba(48, 48, 48, 0.85); border-radius: 12px; padding: 20px; "
      "font-size: 20px; }"));
  message_->hide();
  panel_ = new detail::FilledWidget(this);
  panel_->setObjectName(QStringLiteral("bottomControlsView"));
  segments_ = new detail::SegmentedControlWidget(panel_, [this](int index) {
    SegmentedControl& control = controller_->_videoPhotoSegmentedControl;
    control.selectedSegmentIndex = index;
    controller_->_videoPhotoSegmentChanged(control);
  });
  segments_->setObjectName(QStringLiteral("videoPhotoSegmentedControl"));
  dismissButton_ = makeButton("dismissButton", &Controller::_dismissButton, "KivCloseButton", this);
  flashButton_ = makeButton("flashButton", &Controller::_flashButton, "", this);
  mainControlButton_ = makeButton("mainControlButton", &Controller::_mainControlButton, "", panel_);
  trashButton_ = makeButton("trashButton", &Controller::_trashButton, "KivTrashButton", panel_);
  confirmButton_ = makeButton("confirmButton", &Controller::_confirmButton, "KivConfirmButton", panel_);
  panelAnimation_.setStartValue(0.0);
  panelAnimation_.setEndValue(1.0);

  controller_->setView(this);
  controller_->viewDidLoad();
  resize(1280, 720);
}

KivMediaCaptureAndPlayWidget::~KivMediaCaptureAndPlayWidget() { controller_->setView(nullptr); }

detail::ImageButton* KivMediaCaptureAndPlayWidget::makeButton(const char* name, Button Controller::*model,
                                                              const char* roleImage, QWidget* parent) {
  auto* button = new detail::ImageButton(parent);
  button->setObjectName(QString::fromLatin1(name));
  connect(button, &QAbstractButton::clicked, this,
          [this, model] { controller_->_buttonPressed((*controller_).*model); });
  buttons_.push_back({button, model, roleImage});
  return button;
}

void KivMediaCaptureAndPlayWidget::presentFullScreen() {
  setWindowFlag(Qt::FramelessWindowHint, controller_->prefersStatusBarHidden());
  showFullScreen();
}

void KivMediaCaptureAndPlayWidget::showMessage(const QString& text) {
  message_->setText(text);
  message_->setVisible(!text.isEmpty());
  layoutTop();
}

void KivMediaCaptureAndPlayWidget::controlsDidChange(bool animated) {
  mirrorControls();
  movePanel(animated);
}

void KivMediaCaptureAndPlayWidget::mediaPreviewDidChange() { preview_->update(); }

void KivMediaCaptureAndPlayWidget::mirrorControls() {
  for (const ButtonOutlet& outlet : buttons_) {
    const Button& model = (*controller_).*outlet.model;
    outlet.widget->setImageName(
        QString::fromStdString(model.imageName.empty() ? outlet.roleImage : model.imageName));
    outlet.widget->setEnabled(model.isEnabled);
    outlet.widget->setVisible(!model.isHidden);
  }
  const SegmentedControl& segments = controller_->_videoPhotoSegmentedControl;
  segments_->setSegments(segments.segmentTitles, segments.selectedSegmentIndex);
  segments_->setVisible(!segments.isHidden);
  const Label& label = controller_->_timeLabel;
  timeLabel_->setText(QString::fromStdString(label.text));
  if (const QString style = labelStyleSheet(label); style != timeLabel_->styleSheet())
    timeLabel_->setStyleSheet(style);
  timeLabel_->setVisible(!label.isHidden);
  panel_->setFill(toQColor(controller_->_bottomControlsView.backgroundColor.value_or(Color::withRGBA(0))));
  layoutTop();
}

void KivMediaCaptureAndPlayWidget::movePanel(bool animated) {
  const double height = controller_->_bottomControlsHeightConstraint.constant;
  const double sideDistance = controller_->_bottomControlsSideButtonsBottomtConstraint.constant;
  if (height == targetHeight_ && sideDistance == targetSideDistance_) return;
  targetHeight_ = height;
  targetSideDistance_ = sideDistance;
  panelAnimation_.stop();
  panelAnimation_.disconnect(this);
  if (!animated || animationDuration_ <= 0 || !isVisible()) {
    setPanel(height, sideDistance);
    return;
  }
  const double fromHeight = panelHeight_;
  const double fromSide = sideDistance_;
  connect(&panelAnimation_, &QVariantAnimation::valueChanged, this, [=, this](const QVariant& value) {
    const double progress = value.toDouble();
    setPanel(fromHeight + (height - fromHeight) * progress, fromSide + (sideDistance - fromSide) * progress);
  });
  // A growing panel slows as it arrives; a shrinking one gets going gently, then leaves quickly.
  const bool grows =
      controller_->_bottomControlsView.heightTransition == BottomControlsVisibility::Transition::grows;
  panelAnimation_.setEasingCurve(grows ? QEasingCurve::OutCubic : QEasingCurve::InCubic);
  panelAnimation_.setDuration(animationDuration_);
  panelAnimation_.start();
}

void KivMediaCaptureAndPlayWidget::setPanel(double height, double sideDistance) {
  panelHeight_ = height;
  sideDistance_ = sideDistance;
  layoutPanel();
}

void KivMediaCaptureAndPlayWidget::layoutTop() {
  preview_->setGeometry(rect());
  dismissButton_->setGeometry(kMargin, kMargin, kTopButton, kTopButton);
  flashButton_->setGeometry(width() - kMargin - kTopButton, kMargin, kTopButton, kTopButton);
  const int labelWidth = timeLabel_->sizeHint().width();
  timeLabel_->setGeometry((width() - labelWidth) / 2, kMargin + 6, labelWidth, kTopButton - 12);
  const int messageWidth = std::min(kMessageWidth, width() - 2 * kMargin);
  const int messageHeight = message_->heightForWidth(messageWidth);
  message_->setGeometry((width() - messageWidth) / 2, (height() - messageHeight) / 2, messageWidth,
                        messageHeight);
}

void KivMediaCaptureAndPlayWidget::layoutPanel() {
  const int height = static_cast<int>(std::lround(panelHeight_));
  panel_->setGeometry(0, this->height() - height, width(), height);
  segments_->setGeometry((width() - kSegments.width()) / 2, kSegmentsTop, kSegments.width(),
                         kSegments.height());
  mainControlButton_->setGeometry((width() - kMainButton) / 2, height - kMainBottomInset - kMainButton,
                                  kMainButton, kMainButton);
  const int sideTop = height - static_cast<int>(std::lround(sideDistance_)) - kSideButton;
  trashButton_->setGeometry(kSideInset, sideTop, kSideButton, kSideButton);
  confirmButton_->setGeometry(width() - kSideInset - kSideButton, sideTop, kSideButton, kSideButton);
}

void KivMediaCaptureAndPlayWidget::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  if (!event->spontaneous()) controller_->viewDidAppear();
}

void KivMediaCaptureAndPlayWidget::hideEvent(QHideEvent* event) {
  QWidget::hideEvent(event);
  if (!event->spontaneous()) controller_->viewWillDisappear();
}

void KivMediaCaptureAndPlayWidget::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  layoutTop();
  layoutPanel();
}

void KivMediaCaptureAndPlayWidget::wheelEvent(QWheelEvent* event) {
  if (!(event->modifiers() & Qt::ControlModifier)) {
    QWidget::wheelEvent(event);
    return;
  }
  // One notch is 120 eighths of a degree; a wheel zoom is a whole pinch of its own.
  const double notches = event->angleDelta().y() / 120.0;
  zoom(PinchGestureRecognizer::State::began, 1);
  zoom(PinchGestureRecognizer::State::changed, std::pow(kWheelZoomStep, notches));
  zoom(PinchGestureRecognizer::State::ended, 1);
  event->accept();
}

bool KivMediaCaptureAndPlayWidget::event(QEvent* event) {
  if (event->type() != QEvent::Gesture) return QWidget::event(event);
  auto* pinch = static_cast<QPinchGesture*>(static_cast<QGestureEvent*>(event)->gesture(Qt::PinchGesture));
  if (!pinch) return QWidget::event(event);
  switch (pinch->state()) {
    case Qt::GestureStarted:
      zoom(PinchGestureRecognizer::State::began, pinch->totalScaleFactor());
      break;
    case Qt::GestureUpdated:
      zoom(PinchGestureRecognizer::State::changed, pinch->totalScaleFactor());
      break;
    case Qt::GestureFinished:
      zoom(PinchGestureRecognizer::State::ended, pinch->totalScaleFactor());
      break;
    case Qt::GestureCanceled:
    case Qt::NoGesture:
      zoom(PinchGestureRecognizer::State::cancelled, 1);
      break;
  }
  return true;
}

void KivMediaCaptureAndPlayWidget::zoom(PinchGestureRecognizer::State state, double scale) {
  controller_->_zoomPinchGesture({state, scale});
}

}  // namespace zu

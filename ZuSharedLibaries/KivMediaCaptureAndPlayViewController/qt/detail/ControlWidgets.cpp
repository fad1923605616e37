#include "KivMediaCaptureAndPlayViewController/qt/detail/ControlWidgets.hpp"

#include <QMouseEvent>
#include <QPainter>
#include <algorithm>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewController.hpp"
#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"

namespace zu::detail {
namespace {

const QColor kWhite(255, 255, 255);
const QColor kTranslucentDark(0, 0, 0, 128);

QFont controlFont(int pixelSize, bool bold) {
  QFont font("DejaVu Sans");
  font.setPixelSize(pixelSize);
  font.setBold(bold);
  return font;
}

// `image` scaled by `scale` about the centre of `area`.
QRectF centred(const QRectF& area, const QImage& image, double scale) {
  const QSizeF size(image.width() * scale, image.height() * scale);
  return {area.center() - QPointF(size.width() / 2, size.height() / 2), size};
}

// Fills `area` with `image`, cropping what overflows (the layers' aspect fill).
void drawFilling(QPainter& painter, const QRectF& area, const QImage& image) {
  if (image.isNull()) return;
  const double scale = std::max(area.width() / image.width(), area.height() / image.height());
  painter.drawImage(centred(area, image, scale), image);
}

// Shows all of `image` inside `area` (the photo: nothing of the evidence is cut off).
void drawFitting(QPainter& painter, const QRectF& area, const QImage& image) {
  if (image.isNull()) return;
  const double scale = std::min(area.width() / image.width(), area.height() / image.height());
  painter.drawImage(centred(area, image, scale), image);
}

}  // namespace

ImageButton::ImageButton(QWidget* parent) : QAbstractButton(parent) {
  setCursor(Qt::PointingHandCursor);
  setFocusPolicy(Qt::NoFocus);
}

void ImageButton::setImageName(const QString& name) {
  if (name == imageName_) return;
  imageName_ = name;
  renderer_.load(QStringLiteral(":/KivCapture/%1.svg").arg(name));
  update();
}

void ImageButton::paintEvent(QPaintEvent* /*event*/) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  if (!isEnabled()) painter.setOpacity(0.4);
  if (isDown()) painter.setOpacity(painter.opacity() * 0.7);
  renderer_.render(&painter, rect());
}

SegmentedControlWidget::SegmentedControlWidget(QWidget* parent, std::function<void(int index)> picked)
    : QWidget(parent), picked_(std::move(picked)) {
  setCursor(Qt::PointingHandCursor);
}

void SegmentedControlWidget::setSegments(const std::vector<std::string>& titles, int selectedIndex) {
  titles_.clear();
  for (const auto& title : titles) titles_.append(QString::fromStdString(title));
  selectedIndex_ = selectedIndex;
  update();
}

void SegmentedControlWidget::paintEvent(QPaintEvent* /*event*/) {
  if (titles_.isEmpty()) return;
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const QRectF whole = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
  const double radius = whole.height() / 2;
  painter.setPen(QPen(QColor(255, 255, 255, 170), 1));
  painter.setBrush(kTranslucentDark);
  painter.drawRoundedRect(whole, radius, radius);
  const double width = whole.width() / static_cast<double>(titles_.size());
  for (int index = 0; index < titles_.size(); ++index) {
    const QRectF segment(whole.left() + index * width, whole.top(), width, whole.height());
    const bool selected = index == selectedIndex_;
    if (selected) {
      painter.setPen(Qt::NoPen);
      painter.setBrush(kWhite);
      painter.drawRoundedRect(segment.adjusted(3, 3, -3, -3), radius - 3, radius - 3);
    }
    painter.setPen(selected ? QColor(0, 0, 0) : kWhite);
    painter.setFont(controlFont(14, selected));
    painter.drawText(segment, Qt::AlignCenter, titles_[index]);
  }
}

void SegmentedControlWidget::mousePressEvent(QMouseEvent* event) {
  if (titles_.isEmpty()) return;
  const auto index = static_cast<int>(event->position().x() * static_cast<double>(titles_.size()) / width());
  if (index >= 0 && index < titles_.size() && index != selectedIndex_) picked_(index);
}

void FilledWidget::setFill(const QColor& fill) {
  if (fill == fill_) return;
  fill_ = fill;
  update();
}

void FilledWidget::paintEvent(QPaintEvent* /*event*/) { QPainter(this).fillRect(rect(), fill_); }

PreviewArea::PreviewArea(QWidget* parent, const KivMediaCaptureAndPlayViewController& controller)
    : QWidget(parent), controller_(controller) {
  setAttribute(Qt::WA_OpaquePaintEvent);
}

void PreviewArea::paintEvent(QPaintEvent* /*event*/) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  const QRectF area = rect();
  const MediaPreviewView& preview = controller_._mediaPreviewView;
  painter.fillRect(area, toQColor(preview.backgroundColor.value_or(Color())));
  if (preview.previewLayer) drawFilling(painter, area, toQImage(preview.previewLayer->frame));
  if (const auto& player = controller_._playerLayer) {
    painter.fillRect(area, toQColor(player->backgroundColor));
    drawFilling(painter, area, toQImage(player->frame));
  }
  if (const auto& photo = controller_._photoImageView) {
    painter.fillRect(area, toQColor(photo->backgroundColor.value_or(Color())));
    drawFitting(painter, area, toQImage(photo->image));
  }
}

}  // namespace zu::detail

#pragma once

#include <QLabel>
#include <QVariantAnimation>
#include <QWidget>
#include <memory>
#include <vector>

#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewController.hpp"
#include "KivMediaCaptureAndPlayViewController/core/ViewModel.hpp"

namespace zu {

namespace detail {
class FilledWidget;
class ImageButton;
class PreviewArea;
class SegmentedControlWidget;
}  // namespace detail

/**
 * The capture screen on Qt 6 Widgets: a full-screen widget that mirrors its screen's view model and passes
 * presses, segment picks, pinches and Ctrl+wheel zoom back to it. It owns the screen, loads it when made,
 * and tells it when it appears and disappears. It installs the main-queue dispatcher that runs main-queue
 * tasks on the Qt GUI thread.
 *
 * @code
 * auto platform = zu::qtCapturePlatform(camera, player);
 * auto screen = std::make_unique<zu::KivMediaCaptureAndPlayViewController>(host, folder, std::nullopt, false,
 *                                                                          platform);
 * auto* widget = new zu::KivMediaCaptureAndPlayWidget(std::move(screen));
 * widget->presentFullScreen();  // the host calls widget->deleteLater() when told the screen was dismissed
 * @endcode
 *
 * @par Thread Safety
 * GUI thread only. The delegate is called from inside the widget's event handlers: a host that closes the
 * screen then uses `deleteLater()`, never `delete`.
 */
class KivMediaCaptureAndPlayWidget final : public QWidget, public CaptureScreenView {
 public:
  explicit KivMediaCaptureAndPlayWidget(std::unique_ptr<KivMediaCaptureAndPlayViewController> controller,
                                        QWidget* parent = nullptr);
  ~KivMediaCaptureAndPlayWidget() override;

  KivMediaCaptureAndPlayViewController& controller() { return *controller_; }
  /// Shows the screen as a frameless window covering the whole screen.
  void presentFullScreen();
  /**
   * Shows `text` across the middle of the screen, over the preview: where a host says why the camera cannot
   * be used (the screen itself shows no alert). An empty text hides it.
   */
  void showMessage(const QString& text);
  /// How long the bottom panel takes to change its height; 0 changes it at once.
  void setAnimationDuration(int milliseconds) { animationDuration_ = milliseconds; }
  /// The panel's current height and side-button distance (they lag the model while animating).
  double bottomPanelHeight() const { return panelHeight_; }
  double sideButtonsBottomDistance() const { return sideDistance_; }

  void controlsDidChange(bool animated) override;
  void mediaPreviewDidChange() override;

 protected:
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;
  bool event(QEvent* event) override;

 private:
  struct ButtonOutlet {
    detail::ImageButton* widget;
    Button KivMediaCaptureAndPlayViewController::*model;
    /// The image of a button whose model names none.
    const char* roleImage;
  };

  detail::ImageButton* makeButton(const char* name, Button KivMediaCaptureAndPlayViewController::*model,
                                  const char* roleImage, QWidget* parent);
  void mirrorControls();
  void movePanel(bool animated);
  void setPanel(double height, double sideDistance);
  void layoutTop();
  void layoutPanel();
  void zoom(PinchGestureRecognizer::State state, double scale);

  std::unique_ptr<KivMediaCaptureAndPlayViewController> controller_;
  detail::PreviewArea* preview_;
  detail::FilledWidget* panel_;
  detail::SegmentedControlWidget* segments_;
  QLabel* timeLabel_;
  QLabel* message_;
  detail::ImageButton* dismissButton_;
  detail::ImageButton* flashButton_;
  detail::ImageButton* mainControlButton_;
  detail::ImageButton* trashButton_;
  detail::ImageButton* confirmButton_;
  std::vector<ButtonOutlet> buttons_;
  QVariantAnimation panelAnimation_;
  int animationDuration_ = 250;
  double panelHeight_ = 0;
  double sideDistance_ = 0;
  /// Where the panel is heading: height and side distance.
  double targetHeight_ = -1;
  double targetSideDistance_ = -1;
};

}  // namespace zu

#include <KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewControllerDelegate.hpp>
#include <KivMediaCaptureAndPlayViewController/fake/FakeCaptureDevice.hpp>
#include <KivMediaCaptureAndPlayViewController/fake/FakeMediaPlayer.hpp>
#include <KivMediaCaptureAndPlayViewController/gstreamer/GstCaptureDevice.hpp>
#include <KivMediaCaptureAndPlayViewController/qt/KivMediaCaptureAndPlayWidget.hpp>
#include <KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp>

#include <QApplication>
#include <memory>

namespace {

class Host final : public zu::KivMediaCaptureAndPlayViewControllerDelegate {
 public:
  bool mediaCaptureAndPlayViewControllerCanDeleteFileAt(zu::KivMediaCaptureAndPlayViewController&,
                                                        const zu::URL&) override {
    return true;
  }
  void mediaCaptureAndPlayViewControllerDidDeleteFileAt(zu::KivMediaCaptureAndPlayViewController&,
                                                        const zu::URL&) override {}
  void mediaCaptureAndPlayViewControllerDidDismissWith(
      zu::KivMediaCaptureAndPlayViewController&, zu::KivMediaCaptureAndPlayViewController::DismissReason,
      const std::optional<zu::URL>&) override {}
  void mediaCaptureAndPlayViewControllerDidFailWith(zu::KivMediaCaptureAndPlayViewController&,
                                                    const zu::SetupError&) override {}
};

}  // namespace

// The screen builds from the installed package, its image assets came along, and the GStreamer camera
// links.
int main(int argc, char** argv) {
  QApplication application(argc, argv);
  zu::installQtMainDispatcher();
  Host host;
  const zu::GstCaptureDevice synthetic({.synthetic = true});
  auto screen = std::make_unique<zu::KivMediaCaptureAndPlayViewController>(
      host, zu::URL::fileURLWithPath("/tmp", true), std::nullopt, false,
      zu::qtCapturePlatform(std::make_shared<zu::FakeCaptureDevice>(),
                            std::make_shared<zu::FakeMediaPlayer>()));
  zu::KivMediaCaptureAndPlayWidget widget(std::move(screen));
  const bool loaded =
      widget.controller().state() == zu::KivMediaCaptureAndPlayViewController::_UIState::disabled;
  const bool authorized = synthetic.authorizationStatus() == zu::CaptureAuthorizationStatus::authorized;
  return loaded && authorized && QImage(":/KivCapture/GlimmoRecordButton.svg").width() > 0 ? 0 : 1;
}

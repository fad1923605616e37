#include "KivMediaCaptureAndPlayViewController/core/CaptureScreen.hpp"

#include "ZuFoundation/FatalError.hpp"

namespace testing_support {

CaptureScreen::CaptureScreen(const Options& options)
    : device(std::make_shared<zu::FakeCaptureDevice>(options.device)) {
  std::optional<zu::URL> file;
  if (options.fileName) {
    file = fileURL(*options.fileName);
    if (options.fileBytes) writeFile(file->path(), *options.fileBytes);
  }
  zu::CapturePlatform platform{
      .captureDevice = device,
      .player = player,
      .timerSource = timers,
      .imageFromData = [this](const zu::Data& bytes) -> std::optional<zu::Image> {
        const bool isJPEG = bytes.size() >= 2 && bytes[0] == 0xFF && bytes[1] == 0xD8;
        if (!decodesImages || !isJPEG) return std::nullopt;
        return zu::Image(1, 1, {0, 0, 0, 255});
      },
      .mainQueue = mainQueue.executor(),
      .sessionQueue = sessionQueue.executor(),
      .now = [] { return kCaptureTime; },
  };
  controller =
      std::make_unique<Controller>(delegate, folderURL(), file, options.autoplay, std::move(platform));
  controller->defaultMediaType = options.defaultMediaType;
}

void CaptureScreen::open() {
  load();
  controller->viewDidAppear();
  settle();
}

void CaptureScreen::settle() {
  while (sessionQueue.runAll() + mainQueue.runAll() > 0) {
  }
}

void CaptureScreen::press(ButtonType type) {
  controller->_buttonPressed(button(type));
  settle();
}

void CaptureScreen::pickSegment(int index) {
  controller->_videoPhotoSegmentedControl.selectedSegmentIndex = index;
  controller->_videoPhotoSegmentChanged(controller->_videoPhotoSegmentedControl);
  settle();
}

void CaptureScreen::driveTo(State state) {
  switch (state) {
    case State::disabled:
      load();
      return;
    case State::readyToCapture:
      open();
      return;
    case State::recording:
      open();
      press(ButtonType::control);
      return;
    case State::readyToPlayback:
      driveTo(State::recording);
      press(ButtonType::control);
      return;
    case State::playing:
    case State::paused:
      driveTo(State::readyToPlayback);
      press(ButtonType::control);
      if (state == State::paused) press(ButtonType::control);
      return;
    case State::ended:
      driveTo(State::playing);
      player->advance(1000);
      settle();
      return;
    case State::imageDisplay:
      open();
      pickSegment(1);
      press(ButtonType::control);
      return;
  }
}

const zu::Button& CaptureScreen::button(ButtonType type) const {
  switch (type) {
    case ButtonType::dismiss:
      return controller->_dismissButton;
    case ButtonType::control:
      return controller->_mainControlButton;
    case ButtonType::trash:
      return controller->_trashButton;
    case ButtonType::flash:
      return controller->_flashButton;
    case ButtonType::confirm:
      return controller->_confirmButton;
  }
  zu::fatalError("Unknown button type");
}

std::set<ControlType> CaptureScreen::shownControls() const {
  std::set<ControlType> shown;
  if (!controller->_trashButton.isHidden) shown.insert(ControlType::trash);
  if (!controller->_confirmButton.isHidden) shown.insert(ControlType::confirm);
  if (!controller->_videoPhotoSegmentedControl.isHidden) shown.insert(ControlType::segmented);
  if (!controller->_mainControlButton.isHidden) shown.insert(ControlType::main);
  return shown;
}

}  // namespace testing_support

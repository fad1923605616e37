#include "KivMediaCaptureAndPlayViewController/core/SetupError.hpp"

#include "KivMediaCaptureAndPlayViewController/core/LocalizedStrings.hpp"

namespace zu {

SetupError SetupError::noBackWideAngleCamera() {
  return failure(localizedCaptureString("NoBackWideAngleCameraErrorDescription"));
}

SetupError SetupError::videoInputFailed(const Error& error) {
  return failure("Error setting device video input: " + error.localizedDescription());
}

SetupError SetupError::audioInputFailed(const Error& error) {
  return failure("Error setting device audio input: " + error.localizedDescription());
}

SetupError SetupError::cameraInputRefused() {
  return failure("Recording session failed to add camera as an input");
}

SetupError SetupError::movieOutputRefused() {
  return failure("Recording session failed to file object as output");
}

std::string SetupError::errorDescription() const {
  if (kind_ == Kind::cameraAccessDenied) return localizedCaptureString("CameraAccessDeniedErrorDescription");
  return message_;
}

}  // namespace zu

#pragma once

#include <string>
#include <utility>

#include "ZuFoundation/Error.hpp"

namespace zu {

/**
 * Why the capture screen cannot use the camera: access was denied, or the capture session could not be set
 * up. `errorDescription()` is the text a host may show.
 */
class SetupError {
 public:
  enum class Kind { cameraAccessDenied, failure };

  /// The user (or the system) does not allow this application to use the camera.
  static SetupError cameraAccessDenied() { return SetupError(Kind::cameraAccessDenied, {}); }
  /// A set-up failure described by `message`.
  static SetupError failure(std::string message) { return SetupError(Kind::failure, std::move(message)); }

  // The set-up failures of a capture session, with their texts.
  /// No back-facing wide-angle camera (on Linux: no camera at all).
  static SetupError noBackWideAngleCamera();
  /// "Error setting device video input: " and the reason.
  static SetupError videoInputFailed(const Error& error);
  /// "Error setting device audio input: " and the reason.
  static SetupError audioInputFailed(const Error& error);
  /// "Recording session failed to add camera as an input".
  static SetupError cameraInputRefused();
  /// "Recording session failed to file object as output".
  static SetupError movieOutputRefused();

  Kind kind() const { return kind_; }
  /// The text for people: the capture library's text for camera access denied, else the failure's message.
  std::string errorDescription() const;

  friend bool operator==(const SetupError&, const SetupError&) = default;

 private:
  SetupError(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

  Kind kind_;
  std::string message_;
};

}  // namespace zu

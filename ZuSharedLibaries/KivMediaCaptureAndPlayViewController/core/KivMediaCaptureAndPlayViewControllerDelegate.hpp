#pragma once

#include <optional>

#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewController.hpp"
#include "KivMediaCaptureAndPlayViewController/core/SetupError.hpp"
#include "ZuFoundation/URL.hpp"

namespace zu {

/**
 * The host of a capture screen. Every operation is called on the main thread. The host dismisses the screen
 * when told it was dismissed or failed; on `save` it keeps the file (for example as a `KivFile`).
 */
class KivMediaCaptureAndPlayViewControllerDelegate {
 public:
  virtual ~KivMediaCaptureAndPlayViewControllerDelegate() = default;

  /// Whether the screen may offer to delete the file at `fileURL`; asked at most once per file and screen.
  virtual bool mediaCaptureAndPlayViewControllerCanDeleteFileAt(
      KivMediaCaptureAndPlayViewController& controller, const URL& fileURL) = 0;
  /// The screen has just removed the file at `fileURL`.
  virtual void mediaCaptureAndPlayViewControllerDidDeleteFileAt(
      KivMediaCaptureAndPlayViewController& controller, const URL& fileURL) = 0;
  /// Kept for hosts written against the full protocol: the screen never calls it, and by default it does
  /// nothing.
  virtual void mediaCaptureAndPlayViewControllerDidChangeMediaType(
      KivMediaCaptureAndPlayViewController& /*controller*/,
      KivMediaCaptureAndPlayViewController::MediaType /*mediaType*/) {}
  /// The user closed the screen (`close`) or confirmed the file on screen (`save`); `fileURL` is that file.
  virtual void mediaCaptureAndPlayViewControllerDidDismissWith(
      KivMediaCaptureAndPlayViewController& controller,
      KivMediaCaptureAndPlayViewController::DismissReason reason, const std::optional<URL>& fileURL) = 0;
  /// The camera cannot be used; `error.errorDescription()` says why.
  virtual void mediaCaptureAndPlayViewControllerDidFailWith(KivMediaCaptureAndPlayViewController& controller,
                                                            const SetupError& error) = 0;
};

}  // namespace zu

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "KivSDK/Model/KivReport.hpp"
#include "ZuImage/Image.hpp"

namespace kiv {

/**
 * The user's report list, kept on the device between launches in the application's standard user defaults
 * (`zu::ZuUserDefaults::standard()`), as one property list beside a format version.
 *
 * Nothing is sorted or deduplicated: the list reads back in the order it was persisted. Data of any other
 * format version is discarded, never migrated. No failure leaves here: a list that cannot be saved leaves no
 * list stored, one that cannot be read loads as empty.
 *
 * Load once at start-up, then persist. The first load on a device finds no format version, so it sets the
 * store up: it writes the version and discards whatever list is stored, including one persisted earlier in
 * the same run. A host that persisted before its first load would lose that list.
 *
 * @code
 * std::vector<kiv::KivReport> reports = kiv::KivModel::loadFromStore();  // at start-up
 * reports.push_back(kiv::KivReport("Water damage, kitchen"));
 * kiv::KivModel::persist(reports);
 * @endcode
 *
 * `getPreviewImage` gives a picture of a file's content for lists and detail screens.
 *
 * @par Thread Safety
 * `persist` and `loadFromStore` may be called from any thread and from several processes at once; each
 * persist replaces the whole list atomically, so concurrent callers leave the last writer's complete list.
 * `getPreviewImage` may be called from any thread; its cache is shared by all of them.
 */
class KivModel {
 public:
  struct Const {
    struct UD {
      static constexpr std::string_view reports = "Kiv.ModelManager.Const.UD.reports";
      static constexpr std::string_view version = "Kiv.ModelManager.Const.UD.version";
    };
    /// The format version of the stored list.
    static constexpr std::int64_t currentVersion = 5;
    /// The preview size, in points, until the host sets one: a picture in a list row or a grid cell, or
    /// half the width of a phone's screen.
    static constexpr double defaultPreviewSize = 320;
  };

  KivModel() = delete;

  /// Replaces the stored list with `reports`. When they cannot be encoded the stored list is removed, so a
  /// failed save leaves no reports rather than the previous ones. The version is not written here.
  static void persist(const std::vector<KivReport>& reports);

  /**
   * The stored list, or an empty one. When the stored version is not 5 (a first launch included) the list is
   * removed, version 5 is written and the result is empty: call it at start-up, before the first persist.
   * Bytes that do not decode load as an empty list and stay stored until the next persist.
   */
  static std::vector<KivReport> loadFromStore();

  using PreviewCompletion = std::function<void(std::optional<zu::Image> image)>;

  /**
   * The size a preview is shown at: the length, in points, of its longer side; `Const::defaultPreviewSize`
   * (320) until the host sets another. Photos and video frames whose longer side has more pixels than this
   * size on the main screen (times `zu::Screen::mainScale()`, at least one pixel) are decoded smaller, and
   * their previews are reduced images (`zu::Image::isReduced`): JPEG photos at the fewest eighths of their
   * size that still cover it (libjpeg leaves out the finer detail as it decodes), other pictures at exactly
   * that size. A host that shows a picture bigger, a photo on a screen of its own, asks the preview for
   * `atFullSize()`, which decodes the file again at full size and is not kept.
   *
   * Set it once, at start-up with the screen's scale: previews already made keep the size they were made at.
   *
   * @code
   * zu::Screen::setMainScale(2);
   * kiv::KivModel::setPreviewSize(160);  // thumbnails of 320 pixels
   * @endcode
   */
  static double previewSize();
  static void setPreviewSize(double points);

  /**
   * A picture of `file`'s content, decoded once per run: every picture made is kept, keyed by the file's
   * local URL, for as long as the process lives. It answers in one of two ways, by design:
   * - a photo, or a file already pictured: the picture is the return value; `completion` is still called,
   *   before the return, with nothing;
   * - a video not yet pictured: the return value is nothing; its frame at time zero is decoded off the
   *   calling thread and `completion` is called later on `zu::DispatchQueue::main()` with it (scale
   *   `zu::Screen::mainScale()`, orientation `right`), or with nothing when it cannot be decoded.
   *
   * Pictures are decoded at the preview size (`previewSize`), not at full size: a cached preview costs the
   * pixels of what a screen shows.
   *
   * Nothing comes back through either channel for a file whose bytes are not on the device, a file of
   * kind `unknown` (never kept), and a photo that does not decode; nor, whatever the file, from an SDK built
   * without previews. Photos are read whole and decoded before the call returns: the calling thread waits.
   * Videos decode one at a time, in the order asked for. Two requests for a video before its first answer
   * each decode it and each completion receives the frame.
   * `completion` is called exactly once.
   *
   * @code
   * auto picture = kiv::KivModel::getPreviewImage(file, [row](std::optional<zu::Image> frame) {
   *   if (frame) row->show(*frame);  // a video's frame, on the main queue
   * });
   * if (picture) row->show(*picture);
   * @endcode
   */
  static std::optional<zu::Image> getPreviewImage(const KivFile& file, PreviewCompletion completion);
};

}  // namespace kiv

#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "KivSDK/Model/KivReport.hpp"

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
 * @par Thread Safety
 * Both operations may be called from any thread and from several processes at once; each persist replaces
 * the whole list atomically, so concurrent callers leave the last writer's complete list.
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
};

}  // namespace kiv

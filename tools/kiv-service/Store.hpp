#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Model.hpp"
#include "Sqlite.hpp"

namespace kiv::service {

/**
 * Reports, files and subscriptions in one SQLite database (WAL) under the data folder. Every change that
 * touches a report's files also stores the report's re-evaluated proof status.
 *
 * @par Thread Safety
 * All members may be called from any thread; one mutex serialises use of the connection.
 */
class Store {
 public:
  explicit Store(const std::filesystem::path& databaseFile);

  /// Stores a new report, giving it and its files fresh slugs; answers it as stored.
  ReportRecord create(ReportRecord report);

  /**
   * Replaces a report's fields and file list. Files are matched by file name: a known name keeps its slug and
   * stored content, a new one gets a fresh slug, and files missing from `report` are dropped; their slugs are
   * appended to `droppedFiles` so that their content can be removed. Nothing when the slug is unknown.
   */
  std::optional<ReportRecord> replace(const std::string& slug, ReportRecord report,
                                      std::vector<std::string>& droppedFiles);

  std::optional<ReportRecord> find(const std::string& slug);

  /// Records stored content for a file of a report; nothing when the report has no such file.
  std::optional<ReportRecord> recordContent(const std::string& reportSlug, const std::string& fileSlug,
                                            const std::string& ext, const std::string& hash,
                                            std::int64_t size);

  /// Sets the digests of stored content (file slug, digest; no digest: the content is gone) and re-evaluates.
  std::optional<ReportRecord> updateStoredDigests(
      const std::string& reportSlug,
      const std::vector<std::pair<std::string, std::optional<std::string>>>& digests);

  /// Adds or updates an address's subscriptions, one per list name.
  void subscribe(const std::string& email, const std::vector<Subscription>& subscriptions);
  std::vector<Subscription> subscriptions(const std::string& email);

 private:
  std::optional<ReportRecord> load(const std::string& slug);
  void insertFile(const std::string& reportSlug, int position, const FileRecord& file);
  void saveStatus(ReportRecord& report);

  std::mutex mutex_;
  sqlite::Database database_;
};

}  // namespace kiv::service

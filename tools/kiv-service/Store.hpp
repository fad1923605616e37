#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Model.hpp"
#include "Sqlite.hpp"

namespace kiv::service {

/**
 * Reports, files, subscriptions and provenance records in one SQLite database (WAL) under the data folder.
 * Every change that touches a report's files also stores the report's re-evaluated proof status, and the
 * change that confirms a report also stores its manifest.
 *
 * @par Thread Safety
 * All members may be called from any thread; one mutex serialises use of the connection.
 */
class Store {
 public:
  /// Makes a confirmed report's manifest from the report and every statement kept for it. It runs inside the
  /// transaction that confirms the report, so that the two are stored together or not at all.
  using ManifestIssuer = std::function<ManifestRecord(const ReportRecord& report,
                                                      const std::vector<StatementRecord>& statements)>;
  /// Refuses statements for `report` by throwing.
  using StatementCheck = std::function<void(const ReportRecord& report, bool manifestIssued)>;

  Store(const std::filesystem::path& databaseFile, ManifestIssuer issueManifest);

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

  /// Registers a device key for an owner (a digest of an application token); false when it was known.
  bool registerDeviceKey(const std::string& owner, const DeviceKey& key);
  std::optional<DeviceKey> deviceKey(const std::string& owner, const std::string& keyId);

  /**
   * Stores statements for a report once `check` has passed them, each replacing any earlier one for its
   * file; a refusal stores none of them. Answers the statements of the report's files afterwards, in the
   * report's order; nothing when there is no such report.
   */
  std::optional<std::vector<StatementRecord>> addStatements(const std::string& slug,
                                                            const std::vector<StatementRecord>& statements,
                                                            const StatementCheck& check);

  /// The report's manifest, once issued.
  std::optional<ManifestRecord> manifest(const std::string& slug);

 private:
  std::optional<ReportRecord> load(const std::string& slug);
  void insertFile(const std::string& reportSlug, int position, const FileRecord& file);
  void saveStatus(ReportRecord& report);
  std::vector<StatementRecord> statementsOf(const std::string& slug);
  std::optional<ManifestRecord> loadManifest(const std::string& slug);
  void issueManifestIfConfirmed(const ReportRecord& report);

  std::mutex mutex_;
  sqlite::Database database_;
  ManifestIssuer issueManifest_;
};

}  // namespace kiv::service

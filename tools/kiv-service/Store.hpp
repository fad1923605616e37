#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ContentStore.hpp"
#include "Database.hpp"
#include "Model.hpp"

namespace kiv::service {

/**
 * Reports, files, subscriptions and provenance records in a record engine (SQLite under the data folder, or
 * PostgreSQL shared by several nodes). The schema is brought up to date on construction. Every change is one
 * transaction, every change that touches a report's files also stores the report's re-evaluated proof status,
 * and the change that confirms a report also stores its manifest; nothing is cached between calls, so nodes
 * sharing one engine never contradict each other.
 *
 * Members throw `sql::Error` when the engine fails; `unavailable` when it cannot be reached.
 *
 * @par Thread Safety
 * All members may be called from any thread.
 */
class Store {
 public:
  /// Makes a confirmed report's manifest from the report and every statement kept for it. It runs inside the
  /// transaction that confirms the report, so that the two are stored together or not at all (and again when
  /// the transaction is run again).
  using ManifestIssuer = std::function<ManifestRecord(const ReportRecord& report,
                                                      const std::vector<StatementRecord>& statements)>;
  /// Refuses statements for `report` by throwing.
  using StatementCheck = std::function<void(const ReportRecord& report, bool manifestIssued)>;

  /// Applies the schema's migrations to `database`, which must outlive the store.
  Store(sql::Database& database, ManifestIssuer issueManifest);

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

  /// Throws `sql::Error` unless the engine answers now.
  void probe() { database_.probe(); }

  /// Records stored content for a file of a report; nothing when the report has no such file.
  std::optional<ReportRecord> recordContent(const std::string& reportSlug, const std::string& fileSlug,
                                            const StoredContent& content);

  /// Sets what is stored for files of a report (file slug, content; none: the content is gone) and
  /// re-evaluates its status; nothing when the report is unknown.
  std::optional<ReportRecord> updateStoredContent(
      const std::string& reportSlug,
      const std::vector<std::pair<std::string, std::optional<StoredContent>>>& contents);

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
  /// Stores the manifest of `report`, in the transaction of `connection`, when it is confirmed and has none.
  void issueManifestIfConfirmed(sql::Connection& connection, const ReportRecord& report);

  sql::Database& database_;
  ManifestIssuer issueManifest_;
};

}  // namespace kiv::service

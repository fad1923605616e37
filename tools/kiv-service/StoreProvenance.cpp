// The store's provenance records: device keys per owner, statements per report file, and the manifest that
// is issued in the same transaction as the change that confirms a report.
#include <algorithm>

#include "Store.hpp"

namespace kiv::service {

bool Store::registerDeviceKey(const std::string& owner, const DeviceKey& key) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(database_);
  auto known = database_.prepare("SELECT 1 FROM device_keys WHERE owner = ? AND key_id = ?");
  if (known.bindAll(owner, key.keyId).step()) return false;
  database_.prepare("INSERT INTO device_keys (owner, key_id, public_key) VALUES (?, ?, ?)")
      .bindAll(owner, key.keyId, key.publicKey)
      .run();
  transaction.commit();
  return true;
}

std::optional<DeviceKey> Store::deviceKey(const std::string& owner, const std::string& keyId) {
  std::lock_guard lock(mutex_);
  auto row = database_.prepare("SELECT public_key FROM device_keys WHERE owner = ? AND key_id = ?");
  if (!row.bindAll(owner, keyId).step()) return std::nullopt;
  return DeviceKey{keyId, row.text(0)};
}

std::optional<std::vector<StatementRecord>> Store::addStatements(
    const std::string& slug, const std::vector<StatementRecord>& statements, const StatementCheck& check) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(database_);
  const std::optional<ReportRecord> report = load(slug);
  if (!report) return std::nullopt;
  check(*report, loadManifest(slug).has_value());
  for (const StatementRecord& statement : statements) {
    database_
        .prepare(
            "INSERT OR REPLACE INTO statements (report_slug, file_name, sha256, key_id, public_key, jws) "
            "VALUES (?, ?, ?, ?, ?, ?)")
        .bindAll(slug, statement.fileName, statement.sha256, statement.key.keyId, statement.key.publicKey,
                 statement.jws)
        .run();
  }
  std::vector<StatementRecord> kept = statementsOf(slug);
  transaction.commit();
  std::vector<StatementRecord> ordered;
  for (const FileRecord& file : report->files) {
    const auto found = std::find_if(kept.begin(), kept.end(),
                                    [&](const StatementRecord& s) { return s.fileName == file.fileName; });
    if (found != kept.end()) ordered.push_back(*found);
  }
  return ordered;
}

std::optional<ManifestRecord> Store::manifest(const std::string& slug) {
  std::lock_guard lock(mutex_);
  return loadManifest(slug);
}

std::vector<StatementRecord> Store::statementsOf(const std::string& slug) {
  auto rows = database_.prepare(
      "SELECT file_name, sha256, key_id, public_key, jws FROM statements WHERE report_slug = ? "
      "ORDER BY file_name");
  rows.bindAll(slug);
  std::vector<StatementRecord> statements;
  while (rows.step()) {
    statements.push_back({rows.text(0), rows.text(1), {rows.text(2), rows.text(3)}, rows.text(4)});
  }
  return statements;
}

std::optional<ManifestRecord> Store::loadManifest(const std::string& slug) {
  auto row = database_.prepare("SELECT jws, timestamp, issued_at FROM manifests WHERE report_slug = ?");
  if (!row.bindAll(slug).step()) return std::nullopt;
  return ManifestRecord{row.text(0), row.blob(1), row.text(2)};
}

// A manifest is issued once: a report that is confirmed again after a change keeps the first one.
void Store::issueManifestIfConfirmed(const ReportRecord& report) {
  if (report.status != "confirmed" || loadManifest(report.slug)) return;
  const ManifestRecord manifest = issueManifest_(report, statementsOf(report.slug));
  database_.prepare("INSERT INTO manifests (report_slug, jws, timestamp, issued_at) VALUES (?, ?, ?, ?)")
      .bindAll(report.slug, manifest.jws, sqlite::Blob{manifest.timestamp}, manifest.issuedAt)
      .run();
}

}  // namespace kiv::service

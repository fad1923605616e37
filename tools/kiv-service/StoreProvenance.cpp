// The store's provenance records: device keys per owner, statements per report file, and the manifest that
// is issued in the same transaction as the change that confirms a report.
#include <algorithm>

#include "Jws.hpp"
#include "Store.hpp"
#include "StoreRows.hpp"

namespace kiv::service {
namespace {

using rows::text;
using sql::Connection;
using sql::Row;

std::vector<StatementRecord> statementsOf(Connection& connection, const std::string& slug) {
  std::vector<StatementRecord> statements;
  for (const Row& row : connection.query(
           "SELECT file_name, sha256, key_id, public_key, jws FROM statements WHERE report_slug = $1 "
           "ORDER BY file_name",
           {slug})) {
    statements.push_back({text(row[0]), text(row[1]), {text(row[2]), text(row[3])}, text(row[4])});
  }
  return statements;
}

std::optional<ManifestRecord> loadManifest(Connection& connection, const std::string& slug) {
  const std::vector<Row> rows = connection.query(
      "SELECT jws, timestamp_token, issued_at FROM manifests WHERE report_slug = $1", {slug});
  if (rows.empty()) return std::nullopt;
  return ManifestRecord{text(rows[0][0]), fromBase64url(text(rows[0][1])).value_or(std::string()),
                        text(rows[0][2])};
}

// The statements of the report's files, in the report's order.
std::vector<StatementRecord> inReportOrder(const ReportRecord& report,
                                           const std::vector<StatementRecord>& kept) {
  std::vector<StatementRecord> ordered;
  for (const FileRecord& file : report.files) {
    const auto found = std::find_if(kept.begin(), kept.end(),
                                    [&](const StatementRecord& s) { return s.fileName == file.fileName; });
    if (found != kept.end()) ordered.push_back(*found);
  }
  return ordered;
}

}  // namespace

bool Store::registerDeviceKey(const std::string& owner, const DeviceKey& key) {
  return database_.transaction([&](Connection& connection) {
    // A key registered twice at once: the second insert does nothing and says so.
    return !connection
                .query(
                    "INSERT INTO device_keys (owner, key_id, public_key) VALUES ($1, $2, $3) "
                    "ON CONFLICT (owner, key_id) DO NOTHING RETURNING key_id",
                    {owner, key.keyId, key.publicKey})
                .empty();
  });
}

std::optional<DeviceKey> Store::deviceKey(const std::string& owner, const std::string& keyId) {
  return database_.transaction([&](Connection& connection) -> std::optional<DeviceKey> {
    const std::vector<Row> rows = connection.query(
        "SELECT public_key FROM device_keys WHERE owner = $1 AND key_id = $2", {owner, keyId});
    if (rows.empty()) return std::nullopt;
    return DeviceKey{keyId, text(rows[0][0])};
  });
}

std::optional<std::vector<StatementRecord>> Store::addStatements(
    const std::string& slug, const std::vector<StatementRecord>& statements, const StatementCheck& check) {
  return database_.transaction([&](Connection& connection) -> std::optional<std::vector<StatementRecord>> {
    const std::optional<ReportRecord> report = rows::load(connection, slug);
    if (!report) return std::nullopt;
    check(*report, loadManifest(connection, slug).has_value());
    for (const StatementRecord& statement : statements) {
      connection.query(
          "INSERT INTO statements (report_slug, file_name, sha256, key_id, public_key, jws) "
          "VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT (report_slug, file_name) DO UPDATE SET "
          "sha256 = excluded.sha256, key_id = excluded.key_id, public_key = excluded.public_key, "
          "jws = excluded.jws",
          {slug, statement.fileName, statement.sha256, statement.key.keyId, statement.key.publicKey,
           statement.jws});
    }
    return inReportOrder(*report, statementsOf(connection, slug));
  });
}

std::optional<ManifestRecord> Store::manifest(const std::string& slug) {
  return database_.transaction([&](Connection& connection) { return loadManifest(connection, slug); });
}

// A manifest is issued once: a report that is confirmed again after a change keeps the first one.
void Store::issueManifestIfConfirmed(Connection& connection, const ReportRecord& report) {
  if (report.status != "confirmed" || loadManifest(connection, report.slug)) return;
  const ManifestRecord manifest = issueManifest_(report, statementsOf(connection, report.slug));
  connection.query(
      "INSERT INTO manifests (report_slug, jws, timestamp_token, issued_at) VALUES ($1, $2, $3, $4)",
      {report.slug, manifest.jws, base64url(manifest.timestamp), manifest.issuedAt});
}

}  // namespace kiv::service

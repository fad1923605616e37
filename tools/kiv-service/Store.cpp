#include "Store.hpp"

#include <algorithm>
#include <map>

#include "Crypto.hpp"
#include "StoreRows.hpp"

namespace kiv::service {
namespace rows {

std::string text(const sql::Value& value) { return value.value_or(std::string()); }

std::optional<ReportRecord> load(sql::Connection& connection, const std::string& slug) {
  const std::vector<sql::Row> rows = connection.query(
      "SELECT name, created_at, note, hash, email, meta_data, status FROM reports WHERE slug = $1", {slug});
  if (rows.empty()) return std::nullopt;
  const sql::Row& row = rows.front();
  ReportRecord report{slug, text(row[0]), text(row[1]), row[2], row[3], row[4], row[5], text(row[6]), {}};
  for (const sql::Row& file : connection.query(
           "SELECT slug, file_name, created_at, hash, description, meta_data, stored_ext, stored_hash, "
           "stored_size FROM files WHERE report_slug = $1 ORDER BY position",
           {slug})) {
    report.files.push_back({text(file[0]), text(file[1]), text(file[2]), file[3], file[4], file[5], file[6],
                            file[7], std::stoll(text(file[8]))});
  }
  return report;
}

}  // namespace rows

namespace {

using rows::load;
using rows::text;
using sql::Connection;
using sql::Row;
using sql::Value;

// The schema's history: a migration is never edited once released, a change is a new one. Version 1 is the
// schema the service had before versions were recorded, so its statements tolerate tables that exist.
const std::vector<sql::Migration> kMigrations{
    {1, R"sql(
    CREATE TABLE IF NOT EXISTS reports (
      slug TEXT PRIMARY KEY, name TEXT NOT NULL, created_at TEXT NOT NULL, note TEXT, hash TEXT, email TEXT,
      meta_data TEXT, status TEXT NOT NULL);
    CREATE TABLE IF NOT EXISTS files (
      slug TEXT PRIMARY KEY,
      report_slug TEXT NOT NULL REFERENCES reports(slug) ON DELETE CASCADE, position INTEGER NOT NULL,
      file_name TEXT NOT NULL, created_at TEXT NOT NULL, hash TEXT, description TEXT, meta_data TEXT,
      stored_ext TEXT, stored_hash TEXT, stored_size BIGINT NOT NULL DEFAULT 0);
    CREATE INDEX IF NOT EXISTS files_by_report ON files(report_slug, position);
    CREATE TABLE IF NOT EXISTS subscriptions (
      email TEXT NOT NULL, list_name TEXT NOT NULL, status TEXT NOT NULL, merge_fields TEXT,
      PRIMARY KEY (email, list_name));
  )sql"},
    // Provenance: device keys per owner (a digest of an application token), the statements accepted for a
    // report's files, and the manifest issued when it was confirmed, with its time-stamp as base64url.
    {2, R"sql(
    CREATE TABLE device_keys (
      owner TEXT NOT NULL, key_id TEXT NOT NULL, public_key TEXT NOT NULL, PRIMARY KEY (owner, key_id));
    CREATE TABLE statements (
      report_slug TEXT NOT NULL REFERENCES reports(slug) ON DELETE CASCADE, file_name TEXT NOT NULL,
      sha256 TEXT NOT NULL, key_id TEXT NOT NULL, public_key TEXT NOT NULL, jws TEXT NOT NULL,
      PRIMARY KEY (report_slug, file_name));
    CREATE TABLE manifests (
      report_slug TEXT PRIMARY KEY REFERENCES reports(slug) ON DELETE CASCADE, jws TEXT NOT NULL,
      timestamp_token TEXT NOT NULL, issued_at TEXT NOT NULL);
  )sql"},
};

void insertFile(Connection& connection, const std::string& reportSlug, std::size_t position,
                const FileRecord& file) {
  connection.query(
      "INSERT INTO files (slug, report_slug, position, file_name, created_at, hash, description, meta_data, "
      "stored_ext, stored_hash, stored_size) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11)",
      {file.slug, reportSlug, std::to_string(position), file.fileName, file.createdAt, file.hash,
       file.description, file.metaData, file.storedExt, file.storedHash, std::to_string(file.storedSize)});
}

void insertFiles(Connection& connection, const ReportRecord& report) {
  for (std::size_t i = 0; i < report.files.size(); ++i)
    insertFile(connection, report.slug, i, report.files[i]);
}

void saveStatus(Connection& connection, ReportRecord& report) {
  report.status = evaluateProofStatus(report.files);
  connection.query("UPDATE reports SET status = $1 WHERE slug = $2", {report.status, report.slug});
}

}  // namespace

std::string evaluateProofStatus(const std::vector<FileRecord>& files) {
  bool allConfirmed = !files.empty();
  for (const FileRecord& file : files) {
    if (file.storedHash && file.hash && *file.storedHash != *file.hash) return "failed";
    allConfirmed = allConfirmed && file.storedHash && file.hash;
  }
  return allConfirmed ? "confirmed" : "pending";
}

Store::Store(sql::Database& database, ManifestIssuer issueManifest)
    : database_(database), issueManifest_(std::move(issueManifest)) {
  sql::migrate(database_, kMigrations);
}

ReportRecord Store::create(ReportRecord report) {
  return database_.transaction([&](Connection& connection) {
    // Drawn inside the transaction: one that loses to a concurrent insert of the same slug runs again with
    // fresh ones.
    report.slug = randomSlug();
    for (FileRecord& file : report.files) file.slug = randomSlug();
    report.status = evaluateProofStatus(report.files);
    connection.query(
        "INSERT INTO reports (slug, name, created_at, note, hash, email, meta_data, status) "
        "VALUES ($1, $2, $3, $4, $5, $6, $7, $8)",
        {report.slug, report.name, report.createdAt, report.note, report.hash, report.email, report.metaData,
         report.status});
    insertFiles(connection, report);
    return report;
  });
}

std::optional<ReportRecord> Store::replace(const std::string& slug, ReportRecord report,
                                           std::vector<std::string>& droppedFiles) {
  return database_.transaction([&](Connection& connection) -> std::optional<ReportRecord> {
    std::optional<ReportRecord> current = load(connection, slug);
    if (!current) return std::nullopt;
    std::map<std::string, FileRecord> known;
    for (FileRecord& file : current->files) known.emplace(file.fileName, std::move(file));
    ReportRecord changed = report;
    for (FileRecord& file : changed.files) {
      auto match = known.find(file.fileName);
      if (match == known.end()) {
        file.slug = randomSlug();
        continue;
      }
      file.slug = match->second.slug;
      file.storedExt = match->second.storedExt;
      file.storedHash = match->second.storedHash;
      file.storedSize = match->second.storedSize;
      known.erase(match);
    }
    droppedFiles.clear();
    for (const auto& [name, file] : known) droppedFiles.push_back(file.slug);

    changed.slug = slug;
    changed.status = evaluateProofStatus(changed.files);
    connection.query(
        "UPDATE reports SET name = $1, created_at = $2, note = $3, hash = $4, email = $5, meta_data = $6, "
        "status = $7 WHERE slug = $8",
        {changed.name, changed.createdAt, changed.note, changed.hash, changed.email, changed.metaData,
         changed.status, slug});
    connection.query("DELETE FROM files WHERE report_slug = $1", {slug});
    insertFiles(connection, changed);
    issueManifestIfConfirmed(connection, changed);
    return changed;
  });
}

std::optional<ReportRecord> Store::find(const std::string& slug) {
  return database_.transaction([&](Connection& connection) { return load(connection, slug); });
}

std::optional<ReportRecord> Store::recordContent(const std::string& reportSlug, const std::string& fileSlug,
                                                 const StoredContent& content) {
  return database_.transaction([&](Connection& connection) -> std::optional<ReportRecord> {
    std::optional<ReportRecord> report = load(connection, reportSlug);
    if (!report) return std::nullopt;
    auto file = std::find_if(report->files.begin(), report->files.end(),
                             [&](const FileRecord& candidate) { return candidate.slug == fileSlug; });
    if (file == report->files.end()) return std::nullopt;
    file->storedExt = content.ext;
    file->storedHash = content.sha256;
    file->storedSize = content.size;
    connection.query("UPDATE files SET stored_ext = $1, stored_hash = $2, stored_size = $3 WHERE slug = $4",
                     {content.ext, content.sha256, std::to_string(content.size), fileSlug});
    saveStatus(connection, *report);
    issueManifestIfConfirmed(connection, *report);
    return report;
  });
}

std::optional<ReportRecord> Store::updateStoredContent(
    const std::string& reportSlug,
    const std::vector<std::pair<std::string, std::optional<StoredContent>>>& contents) {
  return database_.transaction([&](Connection& connection) -> std::optional<ReportRecord> {
    for (const auto& [fileSlug, content] : contents) {
      // Content that is gone keeps its extension and size: only its digest no longer proves anything.
      connection.query(
          "UPDATE files SET stored_ext = COALESCE($1, stored_ext), stored_hash = $2, "
          "stored_size = COALESCE($3, stored_size) WHERE slug = $4 AND report_slug = $5",
          {content ? Value(content->ext) : Value(), content ? Value(content->sha256) : Value(),
           content ? Value(std::to_string(content->size)) : Value(), fileSlug, reportSlug});
    }
    std::optional<ReportRecord> report = load(connection, reportSlug);
    if (report) {
      saveStatus(connection, *report);
      issueManifestIfConfirmed(connection, *report);
    }
    return report;
  });
}

void Store::subscribe(const std::string& email, const std::vector<Subscription>& subscriptions) {
  database_.transaction([&](Connection& connection) {
    for (const Subscription& subscription : subscriptions) {
      connection.query(
          "INSERT INTO subscriptions (email, list_name, status, merge_fields) VALUES ($1, $2, $3, $4) "
          "ON CONFLICT (email, list_name) DO UPDATE SET status = excluded.status, "
          "merge_fields = excluded.merge_fields",
          {email, subscription.listName, subscription.status, subscription.mergeFields});
    }
  });
}

std::vector<Subscription> Store::subscriptions(const std::string& email) {
  return database_.transaction([&](Connection& connection) {
    std::vector<Subscription> found;
    for (const Row& row : connection.query(
             "SELECT list_name, status, merge_fields FROM subscriptions WHERE email = $1 ORDER BY list_name",
             {email})) {
      found.push_back({text(row[0]), text(row[1]), row[2]});
    }
    return found;
  });
}

}  // namespace kiv::service

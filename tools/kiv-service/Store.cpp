#include "Store.hpp"

#include <algorithm>
#include <map>

#include "Crypto.hpp"

namespace kiv::service {

std::string evaluateProofStatus(const std::vector<FileRecord>& files) {
  bool allConfirmed = !files.empty();
  for (const FileRecord& file : files) {
    if (file.storedHash && file.hash && *file.storedHash != *file.hash) return "failed";
    allConfirmed = allConfirmed && file.storedHash && file.hash;
  }
  return allConfirmed ? "confirmed" : "pending";
}

Store::Store(const std::filesystem::path& databaseFile, ManifestIssuer issueManifest)
    : database_(databaseFile), issueManifest_(std::move(issueManifest)) {
  database_.execute(R"sql(
    PRAGMA journal_mode = WAL;
    PRAGMA synchronous = NORMAL;
    PRAGMA foreign_keys = ON;
    CREATE TABLE IF NOT EXISTS reports (
      slug TEXT PRIMARY KEY, name TEXT NOT NULL, created_at TEXT NOT NULL, note TEXT, hash TEXT, email TEXT,
      meta_data TEXT, status TEXT NOT NULL);
    CREATE TABLE IF NOT EXISTS files (
      slug TEXT PRIMARY KEY,
      report_slug TEXT NOT NULL REFERENCES reports(slug) ON DELETE CASCADE, position INTEGER NOT NULL,
      file_name TEXT NOT NULL, created_at TEXT NOT NULL, hash TEXT, description TEXT, meta_data TEXT, stored_ext TEXT, stored_hash TEXT, stored_size INTEGER NOT NULL DEFAULT 0);
    CREATE INDEX IF NOT EXISTS files_by_report ON files(report_slug, position);
    CREATE TABLE IF NOT EXISTS subscriptions (
      email TEXT NOT NULL, list_name TEXT NOT NULL, status TEXT NOT NULL, merge_fields TEXT,
      PRIMARY KEY (email, list_name));
    CREATE TABLE IF NOT EXISTS device_keys (
      owner TEXT NOT NULL, key_id TEXT NOT NULL, public_key TEXT NOT NULL, PRIMARY KEY (owner, key_id));
    CREATE TABLE IF NOT EXISTS statements (
      report_slug TEXT NOT NULL REFERENCES reports(slug) ON DELETE CASCADE, file_name TEXT NOT NULL,
      sha256 TEXT NOT NULL, key_id TEXT NOT NULL, public_key TEXT NOT NULL, jws TEXT NOT NULL,
      PRIMARY KEY (report_slug, file_name));
    CREATE TABLE IF NOT EXISTS manifests (
      report_slug TEXT PRIMARY KEY REFERENCES reports(slug) ON DELETE CASCADE, jws TEXT NOT NULL,
      timestamp BLOB NOT NULL, issued_at TEXT NOT NULL);
  )sql");
}

ReportRecord Store::create(ReportRecord report) {
  std::lock_guard lock(mutex_);
  report.slug = randomSlug();
  for (FileRecord& file : report.files) file.slug = randomSlug();
  report.status = evaluateProofStatus(report.files);
  sqlite::Transaction transaction(database_);
  database_
      .prepare(
          "INSERT INTO reports (slug, name, created_at, note, hash, email, meta_data, status) "
          "VALUES (?, ?, ?, ?, ?, ?, ?, ?)")
      .bindAll(report.slug, report.name, report.createdAt, report.note, report.hash, report.email,
               report.metaData, report.status)
      .run();
  for (std::size_t i = 0; i < report.files.size(); ++i)
    insertFile(report.slug, static_cast<int>(i), report.files[i]);
  transaction.commit();
  return report;
}

std::optional<ReportRecord> Store::replace(const std::string& slug, ReportRecord report,
                                           std::vector<std::string>& droppedFiles) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(database_);
  std::optional<ReportRecord> current = load(slug);
  if (!current) return std::nullopt;
  std::map<std::string, FileRecord> known;
  for (FileRecord& file : current->files) known.emplace(file.fileName, std::move(file));
  for (FileRecord& file : report.files) {
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
  for (const auto& [name, file] : known) droppedFiles.push_back(file.slug);

  report.slug = slug;
  report.status = evaluateProofStatus(report.files);
  database_
      .prepare(
          "UPDATE reports SET name = ?, created_at = ?, note = ?, hash = ?, email = ?, meta_data = ?, "
          "status = ? WHERE slug = ?")
      .bindAll(report.name, report.createdAt, report.note, report.hash, report.email, report.metaData,
               report.status, slug)
      .run();
  database_.prepare("DELETE FROM files WHERE report_slug = ?").bindAll(slug).run();
  for (std::size_t i = 0; i < report.files.size(); ++i)
    insertFile(slug, static_cast<int>(i), report.files[i]);
  issueManifestIfConfirmed(report);
  transaction.commit();
  return report;
}

std::optional<ReportRecord> Store::find(const std::string& slug) {
  std::lock_guard lock(mutex_);
  return load(slug);
}

std::optional<ReportRecord> Store::recordContent(const std::string& reportSlug, const std::string& fileSlug,
                                                 const std::string& ext, const std::string& hash,
                                                 std::int64_t size) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(database_);
  std::optional<ReportRecord> report = load(reportSlug);
  if (!report) return std::nullopt;
  auto file = std::find_if(report->files.begin(), report->files.end(),
                           [&](const FileRecord& candidate) { return candidate.slug == fileSlug; });
  if (file == report->files.end()) return std::nullopt;
  file->storedExt = ext;
  file->storedHash = hash;
  file->storedSize = size;
  database_.prepare("UPDATE files SET stored_ext = ?, stored_hash = ?, stored_size = ? WHERE slug = ?")
      .bindAll(ext, hash, size, fileSlug)
      .run();
  saveStatus(*report);
  transaction.commit();
  return report;
}

std::optional<ReportRecord> Store::updateStoredDigests(
    const std::string& reportSlug,
    const std::vector<std::pair<std::string, std::optional<std::string>>>& digests) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(database_);
  for (const auto& [fileSlug, digest] : digests) {
    database_.prepare("UPDATE files SET stored_hash = ? WHERE slug = ? AND report_slug = ?")
        .bindAll(digest, fileSlug, reportSlug)
        .run();
  }
  std::optional<ReportRecord> report = load(reportSlug);
  if (!report) return std::nullopt;
  saveStatus(*report);
  transaction.commit();
  return report;
}

void Store::subscribe(const std::string& email, const std::vector<Subscription>& subscriptions) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(database_);
  for (const Subscription& subscription : subscriptions) {
    database_
        .prepare(
            "INSERT INTO subscriptions (email, list_name, status, merge_fields) VALUES (?, ?, ?, ?) "
            "ON CONFLICT (email, list_name) DO UPDATE SET status = excluded.status, "
            "merge_fields = excluded.merge_fields")
        .bindAll(email, subscription.listName, subscription.status, subscription.mergeFields)
        .run();
  }
  transaction.commit();
}

std::vector<Subscription> Store::subscriptions(const std::string& email) {
  std::lock_guard lock(mutex_);
  auto rows = database_.prepare(
      "SELECT list_name, status, merge_fields FROM subscriptions WHERE email = ? ORDER BY list_name");
  rows.bindAll(email);
  std::vector<Subscription> found;
  while (rows.step()) found.push_back({rows.text(0), rows.text(1), rows.optionalText(2)});
  return found;
}

std::optional<ReportRecord> Store::load(const std::string& slug) {
  auto row = database_.prepare(
      "SELECT name, created_at, note, hash, email, meta_data, status FROM reports WHERE slug = ?");
  row.bindAll(slug);
  if (!row.step()) return std::nullopt;
  ReportRecord report{slug,
                      row.text(0),
                      row.text(1),
                      row.optionalText(2),
                      row.optionalText(3),
                      row.optionalText(4),
                      row.optionalText(5),
                      row.text(6),
                      {}};
  auto files = database_.prepare(
      "SELECT slug, file_name, created_at, hash, description, meta_data, stored_ext, stored_hash, "
      "stored_size "
      "FROM files WHERE report_slug = ? ORDER BY position");
  files.bindAll(slug);
  while (files.step()) {
    report.files.push_back({files.text(0), files.text(1), files.text(2), files.optionalText(3),
                            files.optionalText(4), files.optionalText(5), files.optionalText(6),
                            files.optionalText(7), files.integer(8)});
  }
  return report;
}

void Store::insertFile(const std::string& reportSlug, int position, const FileRecord& file) {
  database_
      .prepare(
          "INSERT INTO files (slug, report_slug, position, file_name, created_at, hash, description, "
          "meta_data, stored_ext, stored_hash, stored_size) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
      .bindAll(file.slug, reportSlug, std::int64_t{position}, file.fileName, file.createdAt, file.hash,
               file.description, file.metaData, file.storedExt, file.storedHash, file.storedSize)
      .run();
}

void Store::saveStatus(ReportRecord& report) {
  report.status = evaluateProofStatus(report.files);
  database_.prepare("UPDATE reports SET status = ? WHERE slug = ?").bindAll(report.status, report.slug).run();
  issueManifestIfConfirmed(report);
}

}  // namespace kiv::service

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

Store::Store(const std::filesystem::path& databaseFile) : database_(databaseFile) {
  database_.execute(R"sql(
    PRAGMA journal_mode = WAL;
    PRAGMA synchronous = NORMAL;
    PRAGMA foreign_keys = ON;
    CREATE TABLE IF NOT EXISTS reports (
      slug TEXT PRIMARY KEY, name TEXT NOT NULL, created_at TEXT NOT NULL, note TEXT, hash TEXT, email TEXT,
      meta_data TEXT, status TEXT NOT NULL);
    CREATE TABLE IF NOT EXISTS files (
      slug TEXT PRIMARY KEY, report_slug TEXT NOT NULL REFERENCES reports(slug) ON DELETE CASCADE,
      position INTEGER NOT NULL, file_name TEXT NOT NULL, created_at TEXT NOT NULL, hash TEXT, description TEXT,
      meta_data TEXT, stored_ext TEXT, stored_hash TEXT, stored_size INTEGER NOT NULL DEFAULT 0);
    CREATE INDEX IF NOT EXISTS files_by_report ON files(report_slug, position);
    CREATE TABLE IF NOT EXISTS subscriptions (
      email TEXT NOT NULL, list_name TEXT NOT NULL, status TEXT NOT NULL, merge_fields TEXT,
      PRIMARY KEY (email, list_name));
  )sql");
}

ReportRecord Store::create(ReportRecord report) {
  std::lock_guard lock(mutex_);
  report.slug = randomSlug();
  for (FileRecord& file : report.files) file.slug = randomSlug();
  report.status = evaluateProofStatus(report.files);
  sqlite::Transaction transaction(database_);
  database_
      .prepare("INSERT INTO reports (slug, name, created_at, note, hash, email, meta_data, status) "
               "VALUES (?, ?, ?, ?, ?, ?, ?, ?)")
      .bind(1, report.slug).bind(2, report.name).bind(3, report.createdAt).bind(4, report.note)
      .bind(5, report.hash).bind(6, report.email).bind(7, report.metaData).bind(8, report.status)
      .run();
  for (std::size_t i = 0; i < report.files.size(); ++i) insertFile(report.slug, static_cast<int>(i), report.files[i]);
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
      .prepare("UPDATE reports SET name = ?, created_at = ?, note = ?, hash = ?, email = ?, meta_data = ?, "
               "status = ? WHERE slug = ?")
      .bind(1, report.name).bind(2, report.createdAt).bind(3, report.note).bind(4, report.hash)
      .bind(5, report.email).bind(6, report.metaData).bind(7, report.status).bind(8, slug)
      .run();
  database_.prepare("DELETE FROM files WHERE report_slug = ?").bind(1, slug).run();
  for (std::size_t i = 0; i < report.files.size(); ++i) insertFile(slug, static_cast<int>(i), report.files[i]);
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
      .bind(1, ext).bind(2, hash).bind(3, size).bind(4, fileSlug)
      .run();
  saveStatus(*report);
  transaction.commit();
  return report;
}

std::optional<ReportRecord> Store::updateStoredDigests(
    const std::string& reportSlug, const std::vector<std::pair<std::string, std::optional<std::string>>>& digests) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(database_);
  for (const auto& [fileSlug, digest] : digests) {
    database_.prepare("UPDATE files SET stored_hash = ? WHERE slug = ? AND report_slug = ?")
        .bind(1, digest).bind(2, fileSlug).bind(3, reportSlug)
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
        .prepare("INSERT INTO subscriptions (email, list_name, status, merge_fields) VALUES (?, ?, ?, ?) "
                 "ON CONFLICT (email, list_name) DO UPDATE SET status = excluded.status, "
                 "merge_fields = excluded.merge_fields")
        .bind(1, email).bind(2, subscription.listName).bind(3, subscription.status)
        .bind(4, subscription.mergeFields)
        .run();
  }
  transaction.commit();
}

std::vector<Subscription> Store::subscriptions(const std::string& email) {
  std::lock_guard lock(mutex_);
  auto rows = database_.prepare(
      "SELECT list_name, status, merge_fields FROM subscriptions WHERE email = ? ORDER BY list_name");
  rows.bind(1, email);
  std::vector<Subscription> found;
  while (rows.step()) found.push_back({rows.text(0), rows.text(1), rows.optionalText(2)});
  return found;
}

std::optional<ReportRecord> Store::load(const std::string& slug) {
  auto row = database_.prepare(
      "SELECT name, created_at, note, hash, email, meta_data, status FROM reports WHERE slug = ?");
  row.bind(1, slug);
  if (!row.step()) return std::nullopt;
  ReportRecord report{slug,           row.text(0),         row.text(1),         row.optionalText(2),
                      row.optionalText(3), row.optionalText(4), row.optionalText(5), row.text(6), {}};
  auto files = database_.prepare(
      "SELECT slug, file_name, created_at, hash, description, meta_data, stored_ext, stored_hash, stored_size "
      "FROM files WHERE report_slug = ? ORDER BY position");
  files.bind(1, slug);
  while (files.step()) {
    report.files.push_back({files.text(0), files.text(1), files.text(2), files.optionalText(3),
                            files.optionalText(4), files.optionalText(5), files.optionalText(6),
                            files.optionalText(7), files.integer(8)});
  }
  return report;
}

void Store::insertFile(const std::string& reportSlug, int position, const FileRecord& file) {
  database_
      .prepare("INSERT INTO files (slug, report_slug, position, file_name, created_at, hash, description, "
               "meta_data, stored_ext, stored_hash, stored_size) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
      .bind(1, file.slug).bind(2, reportSlug).bind(3, std::int64_t{position}).bind(4, file.fileName)
      .bind(5, file.createdAt).bind(6, file.hash).bind(7, file.description).bind(8, file.metaData)
      .bind(9, file.storedExt).bind(10, file.storedHash).bind(11, file.storedSize)
      .run();
}

void Store::saveStatus(ReportRecord& report) {
  report.status = evaluateProofStatus(report.files);
  database_.prepare("UPDATE reports SET status = ? WHERE slug = ?").bind(1, report.status).bind(2, report.slug).run();
}

}  // namespace kiv::service

// kiv add and kiv verify: media files of a report on this device, and their digests.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.hpp"
#include "Documents.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "ReportStore.hpp"
#include "Statements.hpp"
#include "Waiter.hpp"
#include "ZuDate/ZuDate.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kivcli {
namespace {

namespace fs = std::filesystem;

/// A media file on its way into the media folder.
struct Import {
  fs::path source;
  kiv::KivFile record;
};

std::string systemMessage(int error) { return std::generic_category().message(error); }

/// The time of the file's last change, taken as its capture time. A usage error for what is not a
/// non-empty regular file; a failure for one that cannot be read.
zu::Date checkedCaptureTime(const fs::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    reject("cannot add " + path.string() + ": " + systemMessage(errno));
  }
  if (S_ISDIR(status.st_mode)) reject("cannot add " + path.string() + ": it is a folder, not a media file");
  if (!S_ISREG(status.st_mode)) reject("cannot add " + path.string() + ": it is not a regular file");
  if (status.st_size == 0) reject("cannot add " + path.string() + ": the file is empty");
  if (::access(path.c_str(), R_OK) != 0) fail("cannot read " + path.string() + ": " + systemMessage(errno));
  return zu::Date::fromTimeIntervalSince1970(static_cast<double>(status.st_mtim.tv_sec) +
                                             static_cast<double>(status.st_mtim.tv_nsec) / 1e9);
}

std::string lowerExtension(const fs::path& path) {
  std::string extension = path.extension().string();
  if (!extension.empty()) extension.erase(0, 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return extension;
}

/**
 * The record for `source`: named from its capture time as the capture screen names files
 * ("yyyyMMdd_HHmmss"), with "_2", "_3"... when that name is taken in the media folder or by `taken`, its
 * original name kept as the description.
 */
kiv::KivFile recordFor(const fs::path& source, std::set<std::string>& taken) {
  const zu::Date captured = checkedCaptureTime(source);
  const std::string extension = lowerExtension(source);
  if (extension.empty() || !zu::ZuFileManager::isPlainPathComponent(extension)) {
    reject("cannot add " + source.string() + ": without an extension its kind of media cannot be told");
  }
  const std::string base = zu::stringWithLocalDateTimeForFileNames(captured);
  kiv::KivFile record(base, extension, captured);
  for (int suffix = 2; taken.contains(fileName(record)) || record.hasLocalFile(); ++suffix) {
    record.name = base + "_" + std::to_string(suffix);
  }
  taken.insert(fileName(record));
  record.description = source.filename().string();
  return record;
}

/// Copies (or moves) the file into place: a copy is written beside its destination, then renamed.
std::optional<std::string> place(const Import& import, bool move) {
  const zu::URL destination = import.record.fileURL();
  if (move) {
    std::optional<zu::Error> failure;
    zu::ZuFileManager::moveFile(zu::URL::fileURLWithPath(fs::absolute(import.source).string()), destination,
                                [&](bool, std::optional<zu::Error> error) { failure = std::move(error); });
    if (failure) return failure->localizedDescription();
    return std::nullopt;
  }
  const fs::path target = destination.path();
  const fs::path partial = target.string() + ".part";
  std::error_code error;
  fs::copy_file(import.source, partial, fs::copy_options::overwrite_existing, error);
  if (!error) fs::rename(partial, target, error);
  if (!error) return std::nullopt;
  fs::remove(partial, error);
  return error.message();
}

/// Puts back what `place` did for `import`.
void undo(const Import& import, bool move) {
  const zu::URL placed = import.record.fileURL();
  if (move) {
    zu::ZuFileManager::moveFile(placed, zu::URL::fileURLWithPath(fs::absolute(import.source).string()),
                                [](bool, const std::optional<zu::Error>&) {});
  } else {
    static_cast<void>(zu::ZuFileManager::removeItem(placed));
  }
}

}  // namespace

void addFiles(const Context& context, const AddOptions& options) {
  const ReportStore store = ReportStore::load();
  kiv::KivReport report = store.find(options.report);
  std::set<std::string> taken;
  for (const kiv::KivFile& file : report.files) taken.insert(fileName(file));
  // Every file is checked before any is touched.
  std::vector<Import> imports;
  for (const std::string& file : options.files) imports.push_back({file, recordFor(file, taken)});

  for (std::size_t i = 0; i < imports.size(); ++i) {
    if (const auto problem = place(imports[i], options.move)) {
      for (std::size_t j = 0; j < i; ++j) undo(imports[j], options.move);
      fail("cannot " + std::string(options.move ? "move " : "copy ") + imports[i].source.string() +
           " into the media folder: " + problem.value() + "; nothing was added");
    }
  }
  for (Import& import : imports) report.files.push_back(import.record);
  report = report.withCalculatedHash();
  const std::vector<kiv::KivFile> added(report.files.end() - static_cast<std::ptrdiff_t>(imports.size()),
                                        report.files.end());
  std::string keyId;
  try {
    keyId = signStatements(report, added);
  } catch (const CommandError&) {
    for (const Import& import : imports) undo(import, options.move);
    throw;
  }
  ReportStore::save(report);

  zu::AnyCodable::Array documents;
  std::string text;
  for (std::size_t i = 0; i < imports.size(); ++i) {
    documents.emplace_back(fileDocument(added[i]));
    text += "added " + imports[i].source.string() + " as " + fileName(added[i]) + "  " +
            added[i].hash.value_or("") + "\n";
  }
  context.print({{"report", reportSummary(report)},
                 {"hash", report.hash},
                 {"added", std::move(documents)},
                 {"keyId", keyId.empty() ? zu::AnyCodable() : zu::AnyCodable(keyId)}},
                keyId.empty() ? text : text + "statements signed with device key " + keyId);
}

// ---- verify ----

namespace {

/// What became of one file since its digest was recorded.
std::string fileVerdict(const kiv::KivFile& file) {
  if (!file.hasLocalFile()) return "missing";
  if (!file.hash) return "unhashed";
  kiv::KivFile fresh = file;
  fresh.hash.reset();
  return fresh.withCalculatedHash().hash == file.hash ? "ok" : "changed";
}

}  // namespace

void verifyReport(const Context& context, const std::string& selector) {
  const ReportStore store = ReportStore::load();
  const kiv::KivReport& report = store.find(selector);
  zu::AnyCodable::Array files;
  std::vector<std::string> problems;
  std::string text;
  for (const kiv::KivFile& file : report.files) {
    const std::string verdict = fileVerdict(file);
    files.emplace_back(zu::AnyCodable::Dictionary{{"name", fileName(file)}, {"result", verdict}});
    text += "  " + verdict + "  " + fileName(file) + "\n";
    if (verdict != "ok") problems.push_back(fileName(file) + " " + verdict);
  }
  const bool reportHashMatches = report.hash && report.withCalculatedHash().hash == report.hash;
  if (!reportHashMatches) problems.emplace_back("the report's digest does not match its files");

  zu::AnyCodable serviceStatus;
  if (report.hasSlug()) {
    context.connect();
    const auto checked = awaitOne<std::optional<kiv::KivReport>>(
        context, "fetching the status of " + report.name,
        [&](auto completion) { kiv::KivAPI::update(report, std::move(completion)); });
    serviceStatus = statusText(*checked);
    if (checked->proofStatus() == kiv::KivReport::ProofStatus::failed) {
      problems.emplace_back("the service found content that does not match its digest (status failed)");
    }
    text += "  service status: " + statusText(*checked) + "\n";
  }
  const bool verified = problems.empty();
  context.print({{"report", reportSummary(report)},
                 {"verified", verified},
                 {"reportHash", reportHashMatches ? "ok" : "changed"},
                 {"serviceStatus", serviceStatus},
                 {"files", std::move(files)}},
                report.name + (verified ? ": verified\n" : ": NOT verified\n") + text);
  if (!verified) {
    std::string summary;
    for (const std::string& problem : problems) summary += (summary.empty() ? "" : "; ") + problem;
    fail("verification of " + report.name + " failed: " + summary);
  }
}

}  // namespace kivcli

// kiv add and kiv verify: media files of a report on this device, and their digests.
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.hpp"
#include "Documents.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/Model/KivFileImport.hpp"
#include "KivSDK/Model/KivReportList.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "ReportStore.hpp"
#include "Waiter.hpp"

namespace kivcli {
namespace {

namespace fs = std::filesystem;

/// The report to add to; a usage error that says so when the file came first (kiv add FILE REPORT).
const kiv::KivReport& reportToAddTo(const ReportStore& store, const std::string& selector) {
  std::error_code error;
  if (!kiv::findReport(store.reports(), selector) && fs::is_regular_file(selector, error)) {
    reject("\"" + selector + "\" is a file, not a report: the report comes first (kiv add REPORT FILE...)");
  }
  return store.find(selector);
}

}  // namespace

void addFiles(const Context& context, const AddOptions& options) {
  const ReportStore store = ReportStore::load();
  kiv::KivReport report = reportToAddTo(store, options.report);
  const std::size_t kept = report.files.size();
  const kiv::MediaImportOptions importing{.move = options.move, .dateTaken = std::nullopt};
  std::vector<zu::URL> sources;
  for (const std::string& file : options.files) {
    const zu::URL source = zu::URL::fileURLWithPath(fs::absolute(file).string());
    const auto imported =
        kiv::KivProvenance::importSignedMediaFile(source, report, store.reports(), importing);
    if (!imported) {
      for (std::size_t i = 0; i < sources.size(); ++i)
        static_cast<void>(kiv::undoMediaImport(report.files[kept + i], sources[i], importing));
      fail(imported.error().localizedDescription() + "; nothing was added");
    }
    report.files.push_back(imported->file);
    sources.push_back(source);
  }
  report = report.withCalculatedHash();
  ReportStore::save(report);

  const std::string keyId = (*kiv::KivProvenance::deviceSigner())->keyId();
  zu::AnyCodable::Array added;
  std::string text;
  for (std::size_t i = 0; i < sources.size(); ++i) {
    const kiv::KivFile& file = report.files[kept + i];
    added.emplace_back(fileDocument(file));
    text += "added " + sources[i].path() + " as " + fileName(file) + "  " + file.hash.value_or("") + "\n";
  }
  context.print({{"report", reportSummary(report)},
                 {"hash", report.hash},
                 {"added", std::move(added)},
                 {"keyId", keyId}},
                text + "statements signed with device key " + keyId);
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

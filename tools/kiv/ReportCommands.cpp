// kiv report new|list|show|rm: the report list on this device.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "Documents.hpp"
#include "KivSDK/Provenance/ReportStatements.hpp"
#include "ReportStore.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kivcli {
namespace {

zu::AnyCodable::Dictionary metadataFrom(const std::vector<std::string>& pairs) {
  zu::AnyCodable::Dictionary metadata;
  for (const std::string& pair : pairs) {
    const auto equals = pair.find('=');
    if (equals == std::string::npos || equals == 0) reject("--meta takes key=value, not \"" + pair + "\"");
    metadata.set(pair.substr(0, equals), pair.substr(equals + 1));
  }
  return metadata;
}

}  // namespace

void createReport(const Context& context, const NewReportOptions& options) {
  kiv::KivReport report(options.name);
  if (!options.note.empty()) report.note = options.note;
  if (!options.email.empty()) report.email = options.email;
  if (!options.metadata.empty()) report.setMetadata(metadataFrom(options.metadata));
  ReportStore::create(report);
  context.print(reportDocument(report), report.id->uuidString());
}

void listReports(const Context& context) {
  const ReportStore store = ReportStore::load();
  zu::AnyCodable::Array summaries;
  std::size_t nameWidth = 4;
  for (const kiv::KivReport& report : store.reports()) {
    summaries.emplace_back(reportSummary(report));
    nameWidth = std::max(nameWidth, report.name.size());
  }
  const auto column = [](std::string text, std::size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
  };
  std::ostringstream text;
  text << column("ID", 10) << column("NAME", nameWidth + 2) << column("FILES", 7) << column("STATUS", 11)
       << "SLUG\n";
  for (const kiv::KivReport& report : store.reports()) {
    text << column(report.id ? report.id->uuidString().substr(0, 8) : "-", 10)
         << column(report.name, nameWidth + 2) << column(std::to_string(report.files.size()), 7)
         << column(statusText(report), 11) << report.slug.value_or("-") << '\n';
  }
  context.print({{"reports", std::move(summaries)}}, text.str());
}

void showReport(const Context& context, const std::string& selector) {
  const ReportStore store = ReportStore::load();
  const kiv::KivReport& report = store.find(selector);
  context.print(reportDocument(report), reportText(report));
}

namespace {

/// The report's media and certificate, leaving out what another report also uses.
std::vector<zu::URL> ownedFiles(const kiv::KivReport& report, const std::vector<kiv::KivReport>& all) {
  std::set<std::string> shared;
  bool pdfShared = false;
  for (const kiv::KivReport& other : all) {
    if (other.id == report.id) continue;
    for (const kiv::KivFile& file : other.files) shared.insert(fileName(file));
    pdfShared = pdfShared || other.name == report.name;
  }
  std::vector<zu::URL> owned;
  for (const kiv::KivFile& file : report.files) {
    if (file.hasLocalFile() && !shared.contains(fileName(file))) owned.push_back(file.fileURL());
  }
  if (report.hasLocalPDF() && !pdfShared) owned.push_back(report.pdfURL());
  return owned;
}

/// Asks at the terminal before evidence is deleted; refuses when there is no terminal to ask at.
void confirmRemoval(const kiv::KivReport& report, std::size_t fileCount) {
  const std::string what =
      "report " + report.name + " and its " + std::to_string(fileCount) + " file(s) on this device";
  if (::isatty(STDIN_FILENO) != 1)
    reject("kiv report rm deletes " + what + ": add --yes to confirm when not at a terminal");
  std::cerr << "Remove " << what << "? [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "Y" && answer != "yes")
    fail("kept " + report.name + ": nothing was removed");
}

}  // namespace

void removeReport(const Context& context, const RemoveOptions& options) {
  const ReportStore store = ReportStore::load();
  const kiv::KivReport& report = store.find(options.report);
  const std::vector<zu::URL> files = ownedFiles(report, store.reports());
  if (!options.yes) confirmRemoval(report, files.size());
  // The record goes first: a command stopped in between leaves unused files, never a report without them.
  ReportStore::remove(report);
  zu::AnyCodable::Array removed;
  std::string problems;
  for (const zu::URL& file : files) {
    if (const auto removedFile = zu::ZuFileManager::removeItem(file); !removedFile) {
      problems += "; " + file.path() + ": " + removedFile.error().localizedDescription();
    } else {
      removed.emplace_back(file.path());
    }
  }
  if (const auto removedStatements =
          report.id ? kiv::ReportStatements::remove(*report.id) : zu::Result<void>();
      !removedStatements) {
    problems += "; its statements: " + removedStatements.error().localizedDescription();
  }
  if (!problems.empty()) fail("removed report " + report.name + " but not all of its files" + problems);
  context.print({{"removed", reportSummary(report)}, {"deletedFiles", std::move(removed)}},
                "removed " + report.name + " and " + std::to_string(files.size()) + " file(s)");
}

}  // namespace kivcli

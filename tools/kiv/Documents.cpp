#include "Documents.hpp"

#include <optional>
#include <sstream>

#include "ZuDate/ZuDate.hpp"

namespace kivcli {
namespace {

zu::AnyCodable dateText(const std::optional<zu::Date>& date) {
  if (!date) return {};
  return zu::stringWithAPIFormat(*date, zu::DateFormatterStyle::api);
}

zu::AnyCodable urlText(const std::optional<zu::URL>& url) {
  if (!url) return {};
  return url->absoluteString();
}

std::string_view fileTypeText(kiv::KivFile::FileType type) {
  switch (type) {
    case kiv::KivFile::FileType::image:
      return "image";
    case kiv::KivFile::FileType::video:
      return "video";
    case kiv::KivFile::FileType::unknown:
      break;
  }
  return "unknown";
}

}  // namespace

std::string statusText(const kiv::KivReport& report) {
  return std::string(kiv::KivReport::string(report.proofStatus()));
}

std::string fileName(const kiv::KivFile& file) { return file.name + "." + file.ext; }

zu::AnyCodable::Dictionary fileDocument(const kiv::KivFile& file) {
  const auto local = file.localFileLocation();
  return {
      {"name", fileName(file)},
      {"type", fileTypeText(file.fileType)},
      {"dateTaken", dateText(file.dateTaken)},
      {"description", file.description},
      {"hash", file.hash},
      {"slug", file.slug},
      {"remoteUrl", urlText(file.remoteUrl)},
      {"lastUploadAttempt", dateText(file._lastFileUploadAttemptDate)},
      {"path", local ? zu::AnyCodable(local->path()) : zu::AnyCodable()},
  };
}

zu::AnyCodable::Dictionary reportSummary(const kiv::KivReport& report) {
  return {
      {"id", report.id ? zu::AnyCodable(report.id->uuidString()) : zu::AnyCodable()},
      {"name", report.name},
      {"fileCount", static_cast<long>(report.files.size())},
      {"status", statusText(report)},
      {"slug", report.slug},
  };
}

zu::AnyCodable::Dictionary reportDocument(const kiv::KivReport& report) {
  zu::AnyCodable::Dictionary document = reportSummary(report);
  zu::AnyCodable::Array files;
  for (const kiv::KivFile& file : report.files) files.emplace_back(fileDocument(file));
  document.set("files", std::move(files));
  document.set("created", dateText(report.created));
  document.set("note", report.note);
  document.set("email", report.email);
  document.set("hash", report.hash);
  document.set("certificationRequested", dateText(report.certificationRequestedDate));
  const auto metadata = report.metadata();
  document.set("metadata", metadata ? zu::AnyCodable(*metadata) : zu::AnyCodable());
  document.set("pdf", report.hasLocalPDF() ? zu::AnyCodable(report.pdfURL().path()) : zu::AnyCodable());
  return document;
}

std::string reportText(const kiv::KivReport& report) {
  std::ostringstream text;
  text << report.name << "\n  id       " << (report.id ? report.id->uuidString() : "-") << "\n  status   "
       << statusText(report) << "\n  slug     " << report.slug.value_or("-") << "\n  created  "
       << zu::stringWithAPIFormat(report.created, zu::DateFormatterStyle::api) << "\n  digest   "
       << report.hash.value_or("-") << '\n';
  if (report.note) text << "  note     " << *report.note << '\n';
  if (report.email) text << "  email    " << *report.email << '\n';
  if (report.hasLocalPDF()) text << "  PDF      " << report.pdfURL().path() << '\n';
  text << "  files    " << report.files.size() << '\n';
  for (const kiv::KivFile& file : report.files) {
    text << "    " << fileName(file) << "  " << fileTypeText(file.fileType) << "  "
         << file.hash.value_or("(no digest)") << (file.hasRemoteFile() ? "  uploaded" : "")
         << (file.hasLocalFile() ? "" : "  (not on this device)") << '\n';
  }
  return text.str();
}

}  // namespace kivcli

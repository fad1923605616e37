// KivAPI: submitting reports, refreshing their proof status and fetching their certificates.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/API/detail/ServiceCalls.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kiv {
namespace {

using detail::Dictionary;
using detail::invalidResponse;
using detail::textValue;
using Keys = KivAPI::Const::API::Report;

constexpr std::string_view kMissingSlug = "File for request is missing mandatory 'slug' value";
constexpr std::string_view kMissingReportValues =
    "Response JSON dictionary is missing 'status', 'slug' value and/or 'provable_files'";
constexpr std::string_view kFilesDiffer =
    "The files in the report do not correspond to the files in local storage";
constexpr std::string_view kMissingStatus = "Response JSON dictionary is missing 'status' value";
constexpr std::string_view kMissingPDF = "Response did not include a valid url for the PDf file";
constexpr std::string_view kUnusablePDFName = "The report's name cannot be used as the file name of its PDF";

// The elements of "provable_files" when it is an array of objects only.
std::optional<std::vector<const Dictionary*>> fileObjects(const Dictionary& answer) {
  const zu::AnyCodable* files = answer.find(Keys::provableFiles);
  const zu::AnyCodable::Array* array = files ? files->arrayValue() : nullptr;
  if (!array) return std::nullopt;
  std::vector<const Dictionary*> objects;
  objects.reserve(array->size());
  for (const zu::AnyCodable& element : *array) {
    if (!element.dictionaryValue()) return std::nullopt;
    objects.push_back(element.dictionaryValue());
  }
  return objects;
}

// The service's files in the files' canonical order; objects that are no readable file are left out.
std::vector<KivFile> sortedFiles(const std::vector<const Dictionary*>& objects) {
  std::vector<KivFile> files;
  for (const Dictionary* object : objects) {
    if (auto file = KivFile::fromKivAPIResponseDict(*object)) files.push_back(std::move(*file));
  }
  std::stable_sort(files.begin(), files.end());
  return files;
}

// The report as the service accepted it: its status, slug and files (which carry the service's slugs and
// addresses), the rest as sent. The service must list the report's own files, in the report's order.
zu::Result<KivReport> acceptedReport(const KivReport& sent, const Dictionary& answer) {
  const std::string* status = textValue(answer, Keys::status);
  const std::string* slug = textValue(answer, Keys::slug);
  const auto objects = fileObjects(answer);
  if (!status || !slug || !objects) return invalidResponse(kMissingReportValues);
  std::vector<KivFile> files = sortedFiles(*objects);
  if (files != sent.files) return invalidResponse(kFilesDiffer);
  KivReport accepted = sent;
  accepted.setProofStatus(KivReport::proofStatus(*status));
  accepted.slug = *slug;
  accepted.files = std::move(files);
  return accepted;
}

// The report with the answer's proof status and nothing else changed.
zu::Result<KivReport> withStatus(const KivReport& report, const Dictionary& answer) {
  const std::string* status = textValue(answer, Keys::status);
  if (!status) return invalidResponse(kMissingStatus);
  KivReport updated = report;
  updated.setProofStatus(KivReport::proofStatus(*status));
  return updated;
}

void refreshStatus(const KivReport& report, const KivAPI::APIEndpoint& endpoint,
                   KivAPI::ReportCompletion completion) {
  detail::request(endpoint, {}, std::move(completion),
                  [report](const Dictionary& answer) { return withStatus(report, answer); });
}

}  // namespace

void KivAPI::send(const KivReport& report, const std::string& language, ReportCompletion completion) {
  const auto endpoint = report.slug ? APIEndpoint::patchReport(report) : APIEndpoint::postReport(report);
  detail::request(endpoint, {{"Accept-Language", language}}, std::move(completion),
                  [report](const Dictionary& answer) { return acceptedReport(report, answer); });
}

void KivAPI::update(const KivReport& report, ReportCompletion completion) {
  if (!report.slug) return completion(std::nullopt, invalidResponse(kMissingSlug));
  refreshStatus(report, APIEndpoint::getReport(report), std::move(completion));
}

void KivAPI::forceStatusUpdate(const KivReport& report, ReportCompletion completion) {
  if (!report.slug) return completion(std::nullopt, invalidResponse(kMissingSlug));
  refreshStatus(report, APIEndpoint::postForceStatusUpdateForReport(report), std::move(completion));
}

void KivAPI::generatePDF(const KivReport& report, const std::string& language, SuccessCompletion completion) {
  if (!report.slug) return completion(false, invalidResponse(kMissingSlug));
  // The name becomes the PDF's file name; one that is no plain file name would land outside "PDFs/".
  if (!zu::ZuFileManager::isPlainPathComponent(report.name)) {
    return completion(false, invalidResponse(kUnusablePDFName));
  }
  const auto endpoint = APIEndpoint::postGenerateReportPDF(report);
  _clientInstance()->downloadRequest(
      endpoint.url(), false, endpoint.httpMethod(), {{"Accept-Language", language}},
      [report, completion = std::move(completion)](const std::optional<zu::URL>& location,
                                                   const std::optional<zu::Error>& error) {
        detail::moveDownload(location, error, report.pdfURL(), kMissingPDF, completion);
      });
}

}  // namespace kiv

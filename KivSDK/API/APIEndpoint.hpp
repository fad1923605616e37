#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "AnyCodable/AnyCodable.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/API/KivUserProperties.hpp"
#include "KivSDK/Model/KivFile.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "ZuFoundation/URL.hpp"

namespace kiv {

/**
 * One request to the certification service: which one, and copies of the records it is about. Everything a
 * request needs follows from those alone: `url()` (base URL + "/v1/" + the request's path), `httpMethod()`
 * and `payload()` (the body fields; empty for none).
 *
 * Paths: "reports/" for `postReport`; "reports/<slug>/" for `patchReport` and `getReport`, then
 * "file-upload/", "force-status/" or "pdf/" for the report actions; "newsletter/" for `postUserProperties`.
 * The slug is inserted as it is. Every request but `postReport` and `postUserProperties` needs the report's
 * slug: the operations check it first, so building a URL without one is a programming error that stops the
 * program, as is a path that does not form a URL.
 *
 * `getFileUploadURL` is a "GET" with body fields ("type", then "file_slug", present and null for a file
 * without slug); the networking layer sends them as query items.
 */
class KivAPI::APIEndpoint {
 public:
  enum class Case {
    postReport,
    patchReport,
    getReport,
    getFileUploadURL,
    postForceStatusUpdateForReport,
    postGenerateReportPDF,
    postUserProperties,
  };

  static APIEndpoint postReport(KivReport report) { return {Case::postReport, std::move(report)}; }
  static APIEndpoint patchReport(KivReport report) { return {Case::patchReport, std::move(report)}; }
  static APIEndpoint getReport(KivReport report) { return {Case::getReport, std::move(report)}; }
  static APIEndpoint getFileUploadURL(KivReport report, KivFile file) {
    return {Case::getFileUploadURL, std::pair(std::move(report), std::move(file))};
  }
  static APIEndpoint postForceStatusUpdateForReport(KivReport report) {
    return {Case::postForceStatusUpdateForReport, std::move(report)};
  }
  static APIEndpoint postGenerateReportPDF(KivReport report) {
    return {Case::postGenerateReportPDF, std::move(report)};
  }
  static APIEndpoint postUserProperties(KivUserProperties properties) {
    return {Case::postUserProperties, std::move(properties)};
  }

  /// The service's https address without trailing "/", fixed when the SDK is built.
  static std::string_view baseURL();

  Case endpointCase() const { return case_; }
  zu::URL url() const;
  /// "GET", "POST" or "PATCH".
  std::string httpMethod() const;
  /// The body fields; an empty dictionary for a request without body.
  zu::AnyCodable::Dictionary payload() const;

 private:
  using Values = std::variant<KivReport, std::pair<KivReport, KivFile>, KivUserProperties>;

  APIEndpoint(Case endpointCase, Values values) : case_(endpointCase), values_(std::move(values)) {}

  std::string _path() const;
  const KivReport& report() const;

  Case case_;
  Values values_;
};

}  // namespace kiv

#include "KivSDK/API/APIEndpoint.hpp"

#include "ZuFoundation/FatalError.hpp"

namespace kiv {

using Endpoint = KivAPI::APIEndpoint;

std::string_view Endpoint::baseURL() { return KIV_SERVICE_BASE_URL; }

const KivReport& Endpoint::report() const {
  if (const auto* pair = std::get_if<std::pair<KivReport, KivFile>>(&values_)) return pair->first;
  if (const auto* report = std::get_if<KivReport>(&values_)) return *report;
  zu::fatalError("This endpoint is not about a report");
}

std::string Endpoint::_path() const {
  switch (case_) {
    case Case::postReport:
      return "reports/";
    case Case::postUserProperties:
      return "newsletter/";
    default:
      break;
  }
  const KivReport& about = report();
  if (!about.slug) zu::fatalError("A request about a report needs the report's slug");
  const std::string prefix = "reports/" + *about.slug;
  switch (case_) {
    case Case::getFileUploadURL:
      return prefix + "/file-upload/";
    case Case::postForceStatusUpdateForReport:
      return prefix + "/force-status/";
    case Case::postGenerateReportPDF:
      return prefix + "/pdf/";
    default:
      return prefix + "/";
  }
}

zu::URL Endpoint::url() const {
  const std::string text = std::string(baseURL()) + "/v1/" + _path();
  auto url = zu::URL::fromString(text);
  if (!url) zu::fatalError("Not a URL: " + text);
  return *url;
}

std::string Endpoint::httpMethod() const {
  switch (case_) {
    case Case::patchReport:
      return "PATCH";
    case Case::getReport:
    case Case::getFileUploadURL:
      return "GET";
    default:
      return "POST";
  }
}

zu::AnyCodable::Dictionary Endpoint::payload() const {
  using Keys = KivAPI::Const::API::File;
  switch (case_) {
    case Case::postReport:
    case Case::patchReport:
      return report().dictionaryRepresentation();
    case Case::getFileUploadURL: {
      const KivFile& file = std::get<std::pair<KivReport, KivFile>>(values_).second;
      return {{std::string(Keys::type), file.ext}, {std::string(Keys::fileSlug), file.slug}};
    }
    case Case::postUserProperties:
      return std::get<KivUserProperties>(values_).dictionaryRepresentation();
    default:
      return {};
  }
}

}  // namespace kiv

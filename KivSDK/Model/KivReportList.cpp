#include "KivSDK/Model/KivReportList.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <functional>
#include <string>

#include "ZuFileManager/ZuFileManager.hpp"

namespace kiv {
namespace {

std::string upper(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return result;
}

std::string idText(const KivReport& report) { return report.id ? report.id->uuidString() : std::string(); }

std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

}  // namespace

zu::Result<std::size_t> findReport(const std::vector<KivReport>& reports, std::string_view selector) {
  if (selector.empty()) return zu::Error::posix(EINVAL, "a report must be named by its id, slug or name");
  // Ids are upper-case text; people type them in either case.
  const std::string wanted = upper(selector);
  const std::function<bool(const KivReport&)> rules[] = {
      [&](const KivReport& report) { return idText(report) == wanted; },
      [&](const KivReport& report) { return report.slug == selector; },
      [&](const KivReport& report) { return report.name == selector; },
      [&](const KivReport& report) { return idText(report).starts_with(wanted); },
  };
  for (const auto& matches : rules) {
    const auto count = std::count_if(reports.begin(), reports.end(), matches);
    if (count == 1)
      return static_cast<std::size_t>(std::find_if(reports.begin(), reports.end(), matches) -
                                      reports.begin());
    if (count > 1)
      return zu::Error::posix(EINVAL, quoted(selector) + " names " + std::to_string(count) + " reports");
  }
  return zu::Error::posix(ENOENT, "no report " + quoted(selector));
}

std::optional<zu::Error> checkNewReportName(const std::vector<KivReport>& reports, std::string_view name) {
  if (!zu::ZuFileManager::isPlainPathComponent(name)) {
    return zu::Error::posix(
        EINVAL, "a report name cannot be empty, \".\" or \"..\", or contain \"/\": " + quoted(name));
  }
  const auto taken = std::find_if(reports.begin(), reports.end(),
                                  [&](const KivReport& report) { return report.name == name; });
  if (taken == reports.end()) return std::nullopt;
  return zu::Error::posix(EEXIST, "a report named " + quoted(name) + " exists already (id " +
                                      (taken->id ? taken->id->uuidString() : std::string("none")) +
                                      "): two reports of one name would replace each other's certificate");
}

}  // namespace kiv

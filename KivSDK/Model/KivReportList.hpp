#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "KivSDK/Model/KivReport.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"

// Helpers over the host's report list, for screens and tools that let people name a report.
namespace kiv {

/**
 * The index in `reports` of the report `selector` names: the report whose id (as text, letter case
 * ignored), slug or exact name it is, these tried in that order; else the report whose id starts with it.
 * Fails with ENOENT ("no report \"X\"") when no report matches, and with EINVAL ("\"X\" names 2 reports")
 * when the first rule that matches any report matches several, or the selector is empty.
 *
 * @code
 * const auto found = kiv::findReport(reports, "3f2a");  // a prefix of an id, as people type it
 * if (found) show(reports[*found]);
 * @endcode
 */
zu::Result<std::size_t> findReport(const std::vector<KivReport>& reports, std::string_view selector);

/**
 * Why `name` cannot name a new report beside `reports`, or nothing when it can. A report's name is also its
 * certificate's file name (`KivReport::pdfURL()`), so it must be one plain file name (else EINVAL), and no
 * report may have it already (else EEXIST, naming that report): two reports of one name would replace each
 * other's certificate. Call it before creating a report from a name a person typed.
 */
std::optional<zu::Error> checkNewReportName(const std::vector<KivReport>& reports, std::string_view name);

}  // namespace kiv

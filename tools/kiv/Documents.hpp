#pragma once

#include <string>

#include "AnyCodable/AnyCodable.hpp"
#include "KivSDK/Model/KivReport.hpp"

namespace kivcli {

// The forms in which commands print reports and files: JSON documents whose keys are always present (null
// when a field has no value), and short human texts.

/// The proof status as the service names it ("pending", "confirmed"...).
std::string statusText(const kiv::KivReport& report);
/// The file's name in the media folder, with its extension.
std::string fileName(const kiv::KivFile& file);

zu::AnyCodable::Dictionary fileDocument(const kiv::KivFile& file);
/// Every field of the report, its files, and where its certificate is (null when not downloaded).
zu::AnyCodable::Dictionary reportDocument(const kiv::KivReport& report);
/// The report's identity and state: id, name, fileCount, status, slug.
zu::AnyCodable::Dictionary reportSummary(const kiv::KivReport& report);

/// The report's details over several lines, a line per file.
std::string reportText(const kiv::KivReport& report);

}  // namespace kivcli

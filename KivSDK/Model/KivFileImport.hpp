#pragma once

#include <string_view>
#include <vector>

#include "KivSDK/Model/KivReport.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"

namespace kiv {

/**
 * A record for the media file at `file`, made the way a host makes one after a capture: named by the file's
 * name without its extension, its kind told by the extension, dated by the file's last change, its bytes
 * moved into the media folder (a file already there stays) and its digest calculated. A file of the same
 * name in the media folder is replaced. When the file cannot be read or moved, or its name cannot name a
 * record, nothing is moved and the error says why.
 */
zu::Result<KivFile> importMediaFile(const zu::URL& file);

/// The report `selector` names: the first whose id (as text), slug or name it is, tried in that order;
/// `reports.end()` when none.
std::vector<KivReport>::iterator findReport(std::vector<KivReport>& reports, std::string_view selector);

/// A media file added to a stored report.
struct StoredReportFile {
  /// The report as it was persisted.
  KivReport report;
  KivFile file;
  /// Whether the store had no such report, so that one was made.
  bool reportCreated = false;
};

/**
 * Adds the media file at `file` to the report `report` names in the report store (see `findReport`; a new
 * report of that name when the store has none), with one load and one persist: the file is imported (see
 * `importMediaFile`), takes the place of a file of the same name and extension, and the report's digest is
 * calculated again. When the file cannot be imported the store is left as it was.
 */
zu::Result<StoredReportFile> addMediaFileToStoredReport(const zu::URL& file, std::string_view report);

}  // namespace kiv

#pragma once

#include <optional>
#include <vector>

#include "KivSDK/Model/KivReport.hpp"
#include "ZuFoundation/Date.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"

namespace kiv {

/// How `importMediaFile` takes a file in.
struct MediaImportOptions {
  /// Move the file into the media folder instead of copying it.
  bool move = false;
  /// When the photo or video was taken; by default, the file's last change.
  std::optional<zu::Date> dateTaken;
};

/**
 * Brings the photo or video at `file` into the media folder for `report` and answers its record, with its
 * digest, for the caller to add to the report and persist. Evidence already on the device is never replaced:
 *
 * - The record is named by when the file was taken, as the capture screen names captures ("yyyyMMdd_HHmmss"),
 *   with "_2", "_3"... added while a file of the media folder, a file of `report` or a file of
 *   any report in `reports` (those whose content is still to be downloaded included) has that name. Its
 *   extension is the file's, in lower case; its description is the file's original name.
 * - The file is copied, or moved when `options.move` says so. Either way it appears under its name whole or
 *   not at all: a copy is written and flushed beside its place, then renamed into it without replacing
 *   anything.
 * - A file whose content `report` holds already (the same digest) is refused (EEXIST), and so is a file
 *   that is empty, not a regular file, or without an extension (EINVAL), and a move out of the media folder
 *   itself, whose files may be other reports' evidence.
 *
 * On failure nothing is placed, the source stays where it was, and the error's text names the file and
 * what went wrong. Files are hashed while being imported: the call takes as long as reading the file.
 *
 * @code
 * auto imported = kiv::importMediaFile(zu::URL::fileURLWithPath("/home/me/leak.jpg"), report, reports);
 * if (!imported) return show(imported.error().localizedDescription());
 * report.files.push_back(*imported);
 * @endcode
 */
zu::Result<KivFile> importMediaFile(const zu::URL& file, const KivReport& report,
                                    const std::vector<KivReport>& reports,
                                    const MediaImportOptions& options = {});

/**
 * Puts back what `importMediaFile` did when it answered `imported` for `file` with `options`: the copy is
 * removed, a moved file goes back where it was. For a host that takes several files in all or nothing, or
 * that cannot keep a file once it is placed.
 */
zu::Result<void> undoMediaImport(const KivFile& imported, const zu::URL& file,
                                 const MediaImportOptions& options);

}  // namespace kiv

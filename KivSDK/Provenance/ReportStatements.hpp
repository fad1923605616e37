#pragma once

#include <map>
#include <string>

#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/UUID.hpp"

namespace kiv {

/**
 * The signed statements of one report's files, kept beside the report store, never in it: one file per
 * report, "Provenance/statements/<report id>.json" in the application data folder, holding the canonical JSON
 * {"statements":{"<file name>":"<JWS>",...}}. Every change is written atomically (temporary file, flush,
 * rename) while the folder is locked, so that concurrent writers, in this process or another, lose nothing.
 *
 * @par Thread Safety
 * All functions may be called from any thread.
 */
class ReportStatements {
 public:
  /// File name on the wire ("name.ext") to its statement's JWS.
  using Statements = std::map<std::string, std::string>;

  ReportStatements() = delete;

  /// The file for the report `reportId`.
  static std::string path(const zu::UUID& reportId);
  /// The report's statements; none when it has no file yet. Fails when the file cannot be read or is not
  /// in the form above.
  static zu::Result<Statements> load(const zu::UUID& reportId);
  /// Adds `statements` to the report's, replacing those of the same files.
  static zu::Result<void> add(const zu::UUID& reportId, const Statements& statements);
  /// Removes the report's file, if it has one.
  static zu::Result<void> remove(const zu::UUID& reportId);
};

}  // namespace kiv

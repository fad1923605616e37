#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"

namespace zu {

/**
 * Where the application keeps its files, and the few file operations the SDK needs: reading, writing and
 * removing a file, and moving a file into place.
 *
 * The application data folder is the host's choice when it sets one, else
 * `$XDG_DATA_HOME/<program name>` (`~/.local/share/<program name>` when XDG_DATA_HOME is unset). The
 * documents directory is its "Documents" folder.
 *
 * @par Thread Safety
 * All operations may be called from any thread.
 */
class ZuFileManager {
 public:
  /// Receives whether the move succeeded and, when it did not, why.
  using MoveCompletion = std::function<void(bool success, std::optional<Error> error)>;

  /// The user's folder for application data: $XDG_DATA_HOME when it is an absolute path, else
  /// ~/.local/share. Read from the environment on every call.
  static std::string userDataDirectory();
  /// Makes `path` the application data folder (an empty optional restores the default).
  static void setApplicationDataDirectory(std::optional<std::string> path);
  /// The application data folder's path; it is not created here.
  static std::string applicationDataDirectory();
  /// The documents directory, created when missing; the program stops when it cannot be made.
  static URL documentsDirectory();
  /**
   * The folder `name` (one path component) in the documents directory, checked on every call and re-created
   * (with its parents) when it has gone; the program stops when it cannot be made.
   */
  static URL documentsSubdirectory(std::string_view name);

  /// Whether `name` can stand as one file name inside a folder: not empty, not "." or "..", no "/" or NUL.
  static bool isPlainPathComponent(std::string_view name);
  /// Whether something exists at the URL's path.
  static bool fileExists(const URL& url);

  /// The whole content of the file at `atPath`; nothing when it cannot be read.
  static std::optional<Data> contents(const std::string& atPath);
  /**
   * Writes `bytes` as the file at `to`, replacing whatever is there so that a crash at any moment leaves the
   * old or the new content (a flushed temporary file beside it, renamed into place). The file is readable by
   * its owner only. On failure, the error says why and the destination is untouched.
   */
  static Result<void> write(const Data& bytes, const URL& to);
  /// Removes the file at `at`; on failure, the error says why.
  static Result<void> removeItem(const URL& at);

  /**
   * Moves the file at `fromURL` to `to`, replacing whatever is there. Within one file system the move is a
   * rename; across file systems the file is copied to a temporary file beside the destination, flushed to
   * disk and renamed into place, then the source is removed. The destination's folder is locked for the
   * move. When the move fails the source stays where it was.
   *
   * `completion` is called exactly once, on the calling thread, before `moveFile` returns.
   */
  static void moveFile(const URL& fromURL, const URL& to, const MoveCompletion& completion);
};

}  // namespace zu

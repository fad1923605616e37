#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ZuNetworking/URLRequest.hpp"

namespace zu::detail {

/**
 * The on-disk list of a background session's unfinished transfers: one small JSON file per transfer in a
 * folder of the application data directory named after the session, written atomically, removed once the
 * transfer's events have been delivered. Files are readable by the owner only (they hold request headers).
 * One process at a time uses a given identifier, as one application owns its background sessions.
 *
 * @par Thread Safety
 * All operations may be called from any thread; entries are distinct files.
 */
class Journal {
 public:
  struct Entry {
    std::string path;
    URLRequest request;
    /// The file an upload sends; nothing for a download.
    std::optional<std::string> uploadFile;
  };

  /// The journal of the session `identifier`; its folder is made on first use.
  explicit Journal(const std::string& identifier);

  /// Records a transfer and answers the entry's path, empty when it could not be written.
  std::string record(const URLRequest& request, const std::optional<std::string>& uploadFile) const;
  /// Every readable entry; unreadable ones are removed.
  std::vector<Entry> entries() const;
  static void remove(const std::string& path);

 private:
  std::string directory_;
};

}  // namespace zu::detail

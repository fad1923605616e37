#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Error.hpp"

// The writes that must survive a crash or power cut: whole, flushed, renamed into place.
namespace zu::detail {

/// Writes all `count` bytes to `fd`, going on after short and interrupted writes.
std::optional<Error> writeAll(int fd, const void* bytes, std::size_t count);

/// Flushes a folder's entries (a rename inside it) to disk.
std::optional<Error> syncFolder(const std::string& folder);

/**
 * Replaces the file at `path` so that a crash at any moment leaves its old or its new content: `bytes` go to
 * `temporary` (a path in the same folder), which is flushed and renamed over `path`; then the folder is
 * flushed. On failure the temporary file is removed and `path` is untouched.
 */
std::optional<Error> replaceFileDurably(const std::string& path, const std::string& temporary,
                                        const Data& bytes);

}  // namespace zu::detail

#pragma once

#include <string>

#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/internal/Posix.hpp"

// Where the provenance component keeps its files: "Provenance/" in the application data folder, outside the
// documents directory, readable by the user alone.
namespace kiv::detail {

/// The application data folder + "/Provenance" (not created here).
std::string provenanceDirectory();

/// `path` created when missing, with its parents; a folder made here has mode 0700.
zu::Result<std::string> privateFolder(const std::string& path);

/// The folder at `path`, opened and locked (flock) for writing; the lock ends when the descriptor closes.
zu::Result<zu::detail::FileDescriptor> lockedFolder(const std::string& path);

}  // namespace kiv::detail

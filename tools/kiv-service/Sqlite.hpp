#pragma once

#include <filesystem>
#include <memory>

#include "Database.hpp"

namespace kiv::service::sqlite {

/// A connection to the database file at `path` (made when missing), in WAL mode with foreign keys on.
/// Throws `sql::Error` when the file cannot be opened.
std::unique_ptr<sql::Connection> connect(const std::filesystem::path& path);

}  // namespace kiv::service::sqlite

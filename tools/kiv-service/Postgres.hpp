#pragma once

#include <memory>
#include <string>

#include "Database.hpp"

namespace kiv::service::postgres {

/// Where a connection string points, for messages: "host:port/database" (never its password).
std::string describe(const std::string& connectionString);

/// A connection through libpq to `connectionString` (a postgresql:// URI or key=value pairs), giving up on
/// an engine that does not answer within ten seconds. Throws `sql::Error` (unavailable) naming what failed.
std::unique_ptr<sql::Connection> connect(const std::string& connectionString);

}  // namespace kiv::service::postgres

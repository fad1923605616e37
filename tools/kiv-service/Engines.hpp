#pragma once

#include <memory>

#include "ContentStore.hpp"
#include "Database.hpp"
#include "Options.hpp"

namespace kiv::service {

/// The record engine that `options` name: PostgreSQL for a connection string, else SQLite in the data folder.
/// Throws std::runtime_error naming the engine and how to fix it when it cannot be reached.
std::unique_ptr<sql::Database> openDatabase(const Options& options);

/// The content store that `options` name: the object store for a bucket, else the data folder's. Throws
/// std::runtime_error naming the store and how to fix it when it cannot be reached.
std::unique_ptr<ContentStore> openContentStore(const Options& options);

}  // namespace kiv::service

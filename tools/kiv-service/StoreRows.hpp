#pragma once

// Reading the store's rows, shared by the store's source files.

#include <optional>
#include <string>

#include "Database.hpp"
#include "Model.hpp"

namespace kiv::service::rows {

/// A column's text; empty for NULL.
std::string text(const sql::Value& value);

/// The report `slug` with its files in order, as the transaction of `connection` sees it.
std::optional<ReportRecord> load(sql::Connection& connection, const std::string& slug);

}  // namespace kiv::service::rows

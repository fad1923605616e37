#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <sqlite3.h>

#include "Handles.hpp"

namespace kiv::service::sqlite {

/// Bytes that are bound and stored as a BLOB rather than as text.
struct Blob {
  std::string_view bytes;
};

/// A prepared statement. Binding is by 1-based position; `step` returns true while there is a row.
class Statement {
 public:
  Statement(sqlite3* database, std::string_view sql);

  Statement& bind(int index, std::string_view text);
  Statement& bind(int index, const std::string& text) { return bind(index, std::string_view(text)); }
  Statement& bind(int index, const std::optional<std::string>& text);
  Statement& bind(int index, std::int64_t number);
  Statement& bind(int index, Blob blob);

  /// Binds `values` to positions 1, 2, ... in order.
  template <typename... Values>
  Statement& bindAll(const Values&... values) {
    int index = 0;
    (bind(++index, values), ...);
    return *this;
  }

  /// Advances to the next row; false when done. Throws std::runtime_error on an SQLite error.
  bool step();
  /// Runs a statement that returns no rows.
  void run();

  std::string text(int column) const;
  std::optional<std::string> optionalText(int column) const;
  std::int64_t integer(int column) const;
  std::string blob(int column) const;

 private:
  sqlite3* database_;
  Handle<sqlite3_stmt, sqlite3_finalize> statement_;
};

/// An open database file; the connection is not shared between threads without outside locking.
class Database {
 public:
  explicit Database(const std::filesystem::path& path);

  /// Runs one or more statements that return no rows.
  void execute(std::string_view sql);
  Statement prepare(std::string_view sql) { return Statement(database_.get(), sql); }

 private:
  Handle<sqlite3, sqlite3_close_v2> database_;
};

/// BEGIN IMMEDIATE on construction; rolls back on destruction unless committed.
class Transaction {
 public:
  explicit Transaction(Database& database);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit();

 private:
  Database& database_;
  bool committed_ = false;
};

}  // namespace kiv::service::sqlite

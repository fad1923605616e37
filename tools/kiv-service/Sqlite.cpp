#include "Sqlite.hpp"

#include <string>

#include <sqlite3.h>

#include "Handles.hpp"

namespace kiv::service::sqlite {
namespace {

using Statement = Handle<sqlite3_stmt, sqlite3_finalize>;

[[noreturn]] void fail(sqlite3* database, std::string_view what) {
  const int code = sqlite3_extended_errcode(database);
  const bool conflict =
      code == SQLITE_BUSY || code == SQLITE_CONSTRAINT_PRIMARYKEY || code == SQLITE_CONSTRAINT_UNIQUE;
  throw sql::Error(conflict ? sql::Failure::conflict : sql::Failure::other,
                   std::string(what) + ": " + sqlite3_errmsg(database));
}

sqlite3* open(const std::filesystem::path& path) {
  sqlite3* database = nullptr;
  const int status = sqlite3_open_v2(
      path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (status != SQLITE_OK) {
    const std::string message = database ? sqlite3_errmsg(database) : "out of memory";
    sqlite3_close_v2(database);
    throw sql::Error(sql::Failure::unavailable, "cannot open " + path.string() + ": " + message);
  }
  return database;
}

class SqliteConnection final : public sql::Connection {
 public:
  explicit SqliteConnection(const std::filesystem::path& path) : database_(open(path)) {
    sqlite3_busy_timeout(database_.get(), 5000);
    execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON;");
  }

  std::vector<sql::Row> query(std::string_view sql, const std::vector<sql::Value>& parameters) override {
    const Statement statement = prepare(sql);
    for (std::size_t i = 0; i < parameters.size(); ++i)
      bind(statement.get(), static_cast<int>(i + 1), parameters[i]);
    std::vector<sql::Row> rows;
    for (int status = sqlite3_step(statement.get()); status != SQLITE_DONE;
         status = sqlite3_step(statement.get())) {
      if (status != SQLITE_ROW) fail(database_.get(), "step");
      rows.push_back(row(statement.get()));
    }
    return rows;
  }

  void execute(std::string_view script) override {
    if (sqlite3_exec(database_.get(), std::string(script).c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      fail(database_.get(), "execute");
    }
  }

  // IMMEDIATE takes the write lock at once, so two writers queue instead of failing at their first write.
  void begin() override { execute("BEGIN IMMEDIATE"); }
  void lockSchema() override {}  // the write lock of BEGIN IMMEDIATE already holds every other writer off
  bool usable() const override { return true; }

 private:
  Statement prepare(std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), sql.data(), static_cast<int>(sql.size()), &statement, nullptr) !=
        SQLITE_OK) {
      fail(database_.get(), "prepare");
    }
    return Statement(statement);
  }

  static void bind(sqlite3_stmt* statement, int index, const sql::Value& value) {
    if (value) {
      sqlite3_bind_text(statement, index, value->data(), static_cast<int>(value->size()), SQLITE_TRANSIENT);
    } else {
      sqlite3_bind_null(statement, index);
    }
  }

  static sql::Row row(sqlite3_stmt* statement) {
    sql::Row values;
    for (int column = 0; column < sqlite3_column_count(statement); ++column) {
      const auto* text = sqlite3_column_text(statement, column);
      if (!text) {
        values.emplace_back();
        continue;
      }
      values.emplace_back(std::string(reinterpret_cast<const char*>(text),
                                      static_cast<std::size_t>(sqlite3_column_bytes(statement, column))));
    }
    return values;
  }

  Handle<sqlite3, sqlite3_close_v2> database_;
};

}  // namespace

std::unique_ptr<sql::Connection> connect(const std::filesystem::path& path) {
  return std::make_unique<SqliteConnection>(path);
}

}  // namespace kiv::service::sqlite

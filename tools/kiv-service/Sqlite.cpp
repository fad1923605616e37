#include "Sqlite.hpp"

#include <stdexcept>

namespace kiv::service::sqlite {
namespace {

[[noreturn]] void fail(sqlite3* database, std::string_view what) {
  throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(database));
}

sqlite3_stmt* prepareStatement(sqlite3* database, std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()), &statement, nullptr) !=
      SQLITE_OK) {
    fail(database, "prepare");
  }
  return statement;
}

sqlite3* open(const std::filesystem::path& path) {
  sqlite3* database = nullptr;
  const int status = sqlite3_open_v2(
      path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (status != SQLITE_OK) {
    const std::string message = database ? sqlite3_errmsg(database) : "out of memory";
    sqlite3_close_v2(database);
    throw std::runtime_error("cannot open " + path.string() + ": " + message);
  }
  return database;
}

}  // namespace

Statement::Statement(sqlite3* database, std::string_view sql)
    : database_(database), statement_(prepareStatement(database, sql)) {}

Statement& Statement::bind(int index, std::string_view text) {
  sqlite3_bind_text(statement_.get(), index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  return *this;
}

Statement& Statement::bind(int index, const std::optional<std::string>& text) {
  if (text) return bind(index, std::string_view(*text));
  sqlite3_bind_null(statement_.get(), index);
  return *this;
}

Statement& Statement::bind(int index, std::int64_t number) {
  sqlite3_bind_int64(statement_.get(), index, number);
  return *this;
}

Statement& Statement::bind(int index, Blob blob) {
  sqlite3_bind_blob64(statement_.get(), index, blob.bytes.data(), blob.bytes.size(), SQLITE_TRANSIENT);
  return *this;
}

bool Statement::step() {
  const int status = sqlite3_step(statement_.get());
  if (status == SQLITE_ROW) return true;
  if (status == SQLITE_DONE) return false;
  fail(database_, "step");
}

void Statement::run() {
  while (step()) {
  }
}

std::string Statement::text(int column) const { return optionalText(column).value_or(std::string()); }

std::optional<std::string> Statement::optionalText(int column) const {
  const auto* text = sqlite3_column_text(statement_.get(), column);
  if (!text) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column)));
}

std::int64_t Statement::integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }

std::string Statement::blob(int column) const {
  const void* bytes = sqlite3_column_blob(statement_.get(), column);
  if (!bytes) return {};
  return {static_cast<const char*>(bytes),
          static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

Database::Database(const std::filesystem::path& path) : database_(open(path)) {
  sqlite3_busy_timeout(database_.get(), 5000);
}

void Database::execute(std::string_view sql) {
  if (sqlite3_exec(database_.get(), std::string(sql).c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail(database_.get(), "execute");
  }
}

Transaction::Transaction(Database& database) : database_(database) { database_.execute("BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
  if (!committed_) {
    try {
      database_.execute("ROLLBACK");
    } catch (const std::exception&) {
      // Nothing more can be done; the connection is closed with the transaction undone.
    }
  }
}

void Transaction::commit() {
  database_.execute("COMMIT");
  committed_ = true;
}

}  // namespace kiv::service::sqlite

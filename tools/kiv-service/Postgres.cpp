#include "Postgres.hpp"

#include <array>
#include <string_view>

#include <libpq-fe.h>

#include "Handles.hpp"

namespace kiv::service::postgres {
namespace {

using Result = Handle<PGresult, PQclear>;

// SQLSTATE classes a transaction survives by running again: serialisation failure, deadlock, and a unique key
// taken by a concurrent insert (a slug drawn twice).
bool isConflict(std::string_view state) { return state == "40001" || state == "40P01" || state == "23505"; }

std::string trimmed(const char* message) {
  std::string text = message ? message : "";
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

PGconn* open(const std::string& connectionString) {
  const std::array<const char*, 3> keys{"dbname", "connect_timeout", nullptr};
  const std::array<const char*, 3> values{connectionString.c_str(), "10", nullptr};
  PGconn* connection = PQconnectdbParams(keys.data(), values.data(), /*expand_dbname=*/1);
  if (PQstatus(connection) != CONNECTION_OK) {
    const std::string message = trimmed(PQerrorMessage(connection));
    PQfinish(connection);
    throw sql::Error(sql::Failure::unavailable, message);
  }
  return connection;
}

class PostgresConnection final : public sql::Connection {
 public:
  explicit PostgresConnection(const std::string& connectionString) : connection_(open(connectionString)) {
    PQsetNoticeProcessor(
        connection_.get(), [](void*, const char*) {}, nullptr);  // "already exists" notes
  }

  std::vector<sql::Row> query(std::string_view sql, const std::vector<sql::Value>& parameters) override {
    std::vector<const char*> values;
    values.reserve(parameters.size());
    for (const sql::Value& value : parameters) values.push_back(value ? value->c_str() : nullptr);
    const Result result(PQexecParams(connection_.get(), std::string(sql).c_str(),
                                     static_cast<int>(values.size()), nullptr, values.data(), nullptr,
                                     nullptr, 0));
    check(result.get());
    std::vector<sql::Row> rows(static_cast<std::size_t>(PQntuples(result.get())));
    for (int r = 0; r < PQntuples(result.get()); ++r) {
      for (int c = 0; c < PQnfields(result.get()); ++c) {
        rows[static_cast<std::size_t>(r)].push_back(
            PQgetisnull(result.get(), r, c)
                ? sql::Value()
                : sql::Value(std::string(PQgetvalue(result.get(), r, c),
                                         static_cast<std::size_t>(PQgetlength(result.get(), r, c)))));
      }
    }
    return rows;
  }

  void execute(std::string_view script) override {
    const Result result(PQexec(connection_.get(), std::string(script).c_str()));
    check(result.get());
  }

  // Serializable: a transaction that read what another one changed meanwhile fails with 40001 and runs again,
  // so read-modify-write sequences stay correct across nodes without locks of their own.
  void begin() override { execute("BEGIN ISOLATION LEVEL SERIALIZABLE"); }
  void lockSchema() override { execute("LOCK TABLE schema_migrations IN ACCESS EXCLUSIVE MODE"); }
  bool usable() const override { return PQstatus(connection_.get()) == CONNECTION_OK; }

 private:
  void check(const PGresult* result) const {
    const ExecStatusType status = PQresultStatus(result);
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return;
    const std::string message = trimmed(PQresultErrorMessage(result));
    if (!usable()) throw sql::Error(sql::Failure::unavailable, message);
    const char* state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
    throw sql::Error(state && isConflict(state) ? sql::Failure::conflict : sql::Failure::other, message);
  }

  Handle<PGconn, PQfinish> connection_;
};

}  // namespace

std::string describe(const std::string& connectionString) {
  PQconninfoOption* options = PQconninfoParse(connectionString.c_str(), nullptr);
  if (!options) return "the database";
  std::string host = "localhost";
  std::string port = "5432";
  std::string database;
  for (const PQconninfoOption* option = options; option->keyword; ++option) {
    if (!option->val) continue;
    const std::string_view keyword = option->keyword;
    if (keyword == "host" || keyword == "hostaddr") host = option->val;
    if (keyword == "port") port = option->val;
    if (keyword == "dbname") database = option->val;
  }
  PQconninfoFree(options);
  return host + ":" + port + (database.empty() ? "" : "/" + database);
}

std::unique_ptr<sql::Connection> connect(const std::string& connectionString) {
  return std::make_unique<PostgresConnection>(connectionString);
}

}  // namespace kiv::service::postgres

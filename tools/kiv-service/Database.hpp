#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kiv::service::sql {

/// A value as both engines take and give it: text, or SQL NULL. Numbers travel as their decimal text.
using Value = std::optional<std::string>;
using Row = std::vector<Value>;

/// What went wrong with a statement, as far as the caller can act on it.
enum class Failure {
  conflict,     ///< another transaction won (serialisation failure, deadlock, duplicate key): run it again
  unavailable,  ///< the engine cannot be reached
  other,
};

class Error : public std::runtime_error {
 public:
  Error(Failure failure, const std::string& message) : std::runtime_error(message), failure(failure) {}
  Failure failure;
};

/**
 * One connection to a record engine. Statements use positional parameters written $1, $2, ... in increasing
 * order, which both SQLite and PostgreSQL read. Every failure throws `Error`.
 *
 * @par Thread Safety
 * One thread at a time; `Database` leases connections to threads.
 */
class Connection {
 public:
  virtual ~Connection() = default;

  /// Runs one statement and answers its rows (none for statements that return none).
  virtual std::vector<Row> query(std::string_view sql, const std::vector<Value>& parameters) = 0;
  /// Runs statements without parameters, one after the other.
  virtual void execute(std::string_view script) = 0;
  /// Starts a transaction that sees and writes as if it ran alone.
  virtual void begin() = 0;
  /// Inside a transaction: holds other nodes' schema changes off until it ends.
  virtual void lockSchema() = 0;
  /// Whether the connection can still be used; a broken one is replaced before the next lease.
  virtual bool usable() const = 0;
};

/// Makes a connection; throws `Error` (unavailable) when the engine cannot be reached.
using ConnectionFactory = std::function<std::unique_ptr<Connection>()>;

/**
 * A record engine behind a few connections: each transaction runs on a connection of its own, and is run
 * again, a bounded number of times, when another transaction won a conflict with it (so concurrent writes
 * from any number of nodes are each applied once).
 *
 * @par Thread Safety
 * All members may be called from any thread.
 */
class Database {
 public:
  /// `name` says in messages which engine this is, e.g. "PostgreSQL at 127.0.0.1:5432".
  Database(std::string name, ConnectionFactory factory, std::size_t connections);

  const std::string& name() const { return name_; }

  /// Runs `work` in one transaction and commits it; answers what `work` answered.
  template <typename Work>
  auto transaction(Work&& work) -> decltype(work(std::declval<Connection&>())) {
    using Result = decltype(work(std::declval<Connection&>()));
    if constexpr (std::is_void_v<Result>) {
      runTransaction([&](Connection& connection) { work(connection); });
    } else {
      std::optional<Result> result;
      runTransaction([&](Connection& connection) { result.emplace(work(connection)); });
      return std::move(*result);
    }
  }

  /// Throws `Error` unless the engine answers a trivial query now.
  void probe();

 private:
  class Lease;
  void runTransaction(const std::function<void(Connection&)>& work);
  std::unique_ptr<Connection> acquire(bool& fresh);
  void release(std::unique_ptr<Connection> connection);

  std::string name_;
  ConnectionFactory factory_;
  std::mutex mutex_;
  std::condition_variable returned_;
  std::vector<std::unique_ptr<Connection>> idle_;
  std::size_t available_;
};

/// A migration: the schema version it makes and the statements that make it from the one before.
struct Migration {
  int version;
  std::string_view script;
};

/// Brings the schema up to the last of `migrations` (in increasing version order), each in one transaction,
/// recording every version applied; nodes starting together apply each migration once.
void migrate(Database& database, const std::vector<Migration>& migrations);

}  // namespace kiv::service::sql

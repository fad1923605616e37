#include "Database.hpp"

#include <utility>

namespace kiv::service::sql {
namespace {

// Conflicts are rare (two nodes writing the same report at the same moment); a transaction that loses this
// often in a row meets something other than a passing conflict.
constexpr int kAttempts = 8;

void rollback(Connection& connection) {
  try {
    connection.execute("ROLLBACK");
  } catch (const Error&) {
    // A connection that cannot roll back is broken; it is replaced before its next use.
  }
}

}  // namespace

/// A connection taken from the pool for one transaction, given back (or dropped when broken) at the end.
class Database::Lease {
 public:
  explicit Lease(Database& database) : database_(database), connection_(database.acquire(fresh_)) {}
  ~Lease() { database_.release(std::move(connection_)); }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;
  Connection& operator*() const { return *connection_; }
  /// Whether the connection was made for this lease, rather than kept from an earlier one.
  bool fresh() const { return fresh_; }

 private:
  Database& database_;
  bool fresh_ = false;
  std::unique_ptr<Connection> connection_;
};

Database::Database(std::string name, ConnectionFactory factory, std::size_t connections)
    : name_(std::move(name)), factory_(std::move(factory)), available_(connections) {}

void Database::runTransaction(const std::function<void(Connection&)>& work) {
  for (int attempt = 1;; ++attempt) {
    const Lease lease(*this);
    Connection& connection = *lease;
    try {
      connection.begin();
      work(connection);
      connection.execute("COMMIT");
      return;
    } catch (const Error& error) {
      rollback(connection);
      // A kept connection may have died with an engine that has since come back: one more try, on a new one.
      const bool stale = error.failure == Failure::unavailable && !lease.fresh();
      if ((error.failure != Failure::conflict && !stale) || attempt == kAttempts) throw;
    } catch (...) {
      rollback(connection);
      throw;
    }
  }
}

void Database::probe() {
  const Lease lease(*this);
  (*lease).query("SELECT 1", {});
}

std::unique_ptr<Connection> Database::acquire(bool& fresh) {
  std::unique_lock lock(mutex_);
  returned_.wait(lock, [&] { return !idle_.empty() || available_ > 0; });
  fresh = idle_.empty();
  if (!fresh) {
    std::unique_ptr<Connection> connection = std::move(idle_.back());
    idle_.pop_back();
    return connection;
  }
  --available_;
  lock.unlock();
  try {
    return factory_();
  } catch (...) {
    lock.lock();
    ++available_;
    returned_.notify_one();
    throw;
  }
}

void Database::release(std::unique_ptr<Connection> connection) {
  const std::lock_guard lock(mutex_);
  if (connection && connection->usable()) {
    idle_.push_back(std::move(connection));
  } else {
    // The engine went away: the kept connections went with it. Leases connect afresh from now on, which is
    // how a node recovers once its engine is back.
    available_ += 1 + idle_.size();
    idle_.clear();
  }
  returned_.notify_all();
}

void migrate(Database& database, const std::vector<Migration>& migrations) {
  for (const Migration& migration : migrations) {
    database.transaction([&](Connection& connection) {
      connection.execute("CREATE TABLE IF NOT EXISTS schema_migrations (version INTEGER PRIMARY KEY)");
      connection.lockSchema();
      const std::vector<Row> applied = connection.query("SELECT 1 FROM schema_migrations WHERE version = $1",
                                                        {std::to_string(migration.version)});
      if (!applied.empty()) return;
      connection.execute(migration.script);
      connection.query("INSERT INTO schema_migrations (version) VALUES ($1)",
                       {std::to_string(migration.version)});
    });
  }
}

}  // namespace kiv::service::sql

#include "Engines.hpp"

#include <stdexcept>

#include "ObjectStore.hpp"
#include "Postgres.hpp"
#include "Sqlite.hpp"
#include "Storage.hpp"

namespace kiv::service {
namespace {

// A PostgreSQL node serves requests on as many connections at once; SQLite writes one at a time anyway.
constexpr std::size_t kPostgresConnections = 8;

}  // namespace

std::unique_ptr<sql::Database> openDatabase(const Options& options) {
  if (options.database.empty()) {
    const std::filesystem::path file = options.dataDir / "kiv-service.sqlite3";
    return std::make_unique<sql::Database>(
        "the SQLite database " + file.string(), [file] { return sqlite::connect(file); }, 1);
  }
  auto database = std::make_unique<sql::Database>(
      "the database at " + postgres::describe(options.database),
      [connection = options.database] { return postgres::connect(connection); }, kPostgresConnections);
  try {
    database->probe();
  } catch (const sql::Error& error) {
    throw std::runtime_error("cannot reach " + database->name() + ": " + error.what() +
                             "\nStart PostgreSQL there, or correct --database.");
  }
  return database;
}

std::unique_ptr<ContentStore> openContentStore(const Options& options) {
  if (options.s3Bucket.empty()) return std::make_unique<FolderContentStore>(options.dataDir);
  try {
    return std::make_unique<ObjectContentStore>(
        ObjectStoreOptions{options.s3Endpoint,
                           options.s3Bucket,
                           {options.s3AccessKey, options.s3SecretKey, options.s3Region, "s3"}},
        UrlSigner::defaultClock);
  } catch (const ContentStoreUnavailable& error) {
    throw std::runtime_error(
        std::string(error.what()) +
        "\nStart the object store there, or correct --s3-endpoint, --s3-bucket and the keys "
        "in KIV_S3_ACCESS_KEY and KIV_S3_SECRET_KEY.");
  }
}

}  // namespace kiv::service

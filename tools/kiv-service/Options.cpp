#include "Options.hpp"

#include <CLI/CLI.hpp>

#include <cstdlib>

namespace kiv::service {
namespace {

std::vector<std::pair<std::string, Fault>> parseFaults(const std::vector<std::string>& texts) {
  std::vector<std::pair<std::string, Fault>> faults;
  for (const std::string& text : texts) {
    const std::size_t equals = text.find('=');
    std::optional<Fault> fault = equals == std::string::npos
                                     ? std::nullopt
                                     : Fault::fromText(std::string_view(text).substr(equals + 1));
    if (!fault || !Faults::isRoute(text.substr(0, equals)))
      throw CLI::ValidationError("--fault", "expected ROUTE=KIND[:ARG], got \"" + text + "\"");
    faults.emplace_back(text.substr(0, equals), *fault);
  }
  return faults;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): read at start-up
  return value ? value : "";
}

}  // namespace

std::filesystem::path defaultDataDir() {
  const char* dataHome = std::getenv("XDG_DATA_HOME");  // NOLINT(concurrency-mt-unsafe): read at start-up
  if (dataHome && dataHome[0] == '/') return std::filesystem::path(dataHome) / "kiv-service";
  const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe): read at start-up
  return std::filesystem::path(home ? home : "") / ".local/share/kiv-service";
}

std::variant<Options, int> parseOptions(int argc, char** argv) {
  CLI::App app("kiv-service: the reference certification service, HTTPS on loopback");
  Options options;
  std::int64_t uploadTtl = options.uploadUrlTtl.count();
  std::int64_t downloadTtl = options.downloadUrlTtl.count();
  std::vector<std::string> faults;
  app.add_option("--data", options.dataDir, "Folder for the database, stored files and TLS material")
      ->capture_default_str();
  app.add_option(
      "--tls", options.tlsDir,
      "Folder of the CA, server, signing and time-stamping certificates (made there on first start); "
      "several nodes of one service share it (default: the data folder)");
  app.add_option("--database", options.database,
                 "PostgreSQL connection string (postgresql://USER@HOST:PORT/DB or key=value pairs) for "
                 "reports and subscriptions, shared by every node (default: SQLite in the data folder)");
  app.add_option("--s3-endpoint", options.s3Endpoint,
                 "S3-compatible object store for file content, e.g. http://127.0.0.1:7480; clients upload "
                 "and download there (keys from KIV_S3_ACCESS_KEY and KIV_S3_SECRET_KEY)");
  app.add_option("--s3-bucket", options.s3Bucket, "Bucket for file content (made when missing)");
  app.add_option("--s3-region", options.s3Region, "Region the object store signs for")->capture_default_str();
  app.add_option("--port", options.port, "Port on 127.0.0.1; 0 picks a free one and prints it")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--token", options.tokens, "Accepted application token (repeatable)");
  app.add_flag("--open", options.openAccess, "Accept any application token");
  app.add_option("--upload-url-ttl", uploadTtl,
                 "Seconds an upload URL stays valid (whole minutes; 0: expired)")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--download-url-ttl", downloadTtl, "Seconds a file URL stays valid (whole minutes)")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--threads", options.threads,
                 "Worker threads; each request being served holds one (idle connections hold none)")
      ->check(CLI::Range(2, 1024));
  app.add_option(
      "--fault", faults,
      "Misbehave on a route from the start: ROUTE=KIND[:ARG], e.g. get=delay:500, create=status:503, "
      "get=file-name:../../x (routes: create patch get file-upload force-status pdf newsletter put "
      "download *)");
  try {
    app.parse(argc, argv);
    options.faults = parseFaults(faults);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }
  if (options.tokens.empty() && !options.openAccess) {
    static_cast<void>(std::fprintf(stderr, "kiv-service: give at least one --token, or --open\n"));
    return 2;
  }
  if (options.s3Endpoint.empty() != options.s3Bucket.empty()) {
    static_cast<void>(std::fprintf(stderr, "kiv-service: give --s3-endpoint and --s3-bucket together\n"));
    return 2;
  }
  options.s3AccessKey = environment("KIV_S3_ACCESS_KEY");
  options.s3SecretKey = environment("KIV_S3_SECRET_KEY");
  if (!options.s3Bucket.empty() && (options.s3AccessKey.empty() || options.s3SecretKey.empty())) {
    static_cast<void>(std::fprintf(
        stderr, "kiv-service: set KIV_S3_ACCESS_KEY and KIV_S3_SECRET_KEY to the object store's keys\n"));
    return 2;
  }
  options.uploadUrlTtl = std::chrono::seconds(uploadTtl);
  options.downloadUrlTtl = std::chrono::seconds(downloadTtl);
  return options;
}

}  // namespace kiv::service

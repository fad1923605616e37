// Measures the HTTP client against a loopback HTTPS server; run.sh beside it compares with the `curl` tool.
//
//   network_bench serve                                  start the server; print port= and ca=; stop at stdin
//   EOF network_bench upload <base URL> <CA> <file>          PUT the file with a foreground upload task
//   network_bench download <base URL> <CA> <bytes>       GET that many bytes with a foreground download task
//   network_bench json <base URL> <CA> <count>           send small JSON requests one after another
//   network_bench background <base URL> <CA> <file> <n>  start n background uploads of the file at once
//
// Prints "key=value" lines: seconds, completions, threads, the process's peak resident memory in KiB.
#include <chrono>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "ProcessFigures.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuNetworking/ZuNetworking.hpp"
#include "support/Completions.hpp"
#include "support/LoopbackServer.hpp"

namespace {

using benchfigures::Clock;
using benchfigures::peakResidentKiB;
using benchfigures::since;
using benchfigures::threadCount;

zu::URL url(const std::string& base, const std::string& path) { return *zu::URL::fromString(base + path); }

void report(double seconds, int completions, int expected) {
  std::cout << "seconds=" << seconds << "\ncompletions=" << completions << "\nexpected=" << expected
            << "\nthreads=" << threadCount() << "\npeak_kib=" << peakResidentKiB() << "\n";
}

int serve() {
  // Connections are kept alive, as a real service keeps them.
  zutest::LoopbackServer server(true);
  std::cout << "port=" << server.port() << "\nca=" << server.caFile() << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
  }
  return 0;
}

int upload(const std::string& base, const std::string& file) {
  zutest::CallCounter done;
  bool ok = false;
  zu::URLRequest request(url(base, "/upload"));
  request.httpMethod = "PUT";
  const auto start = Clock::now();
  zu::URLSession::shared()
      ->uploadTask(request, zu::URL::fileURLWithPath(file),
                   [&](auto data, auto response, auto error) {
                     ok = !error && response->statusCode == 200 && data;
                     done.called();
                   })
      ->resume();
  done.waitFor(1, std::chrono::seconds(600));
  report(since(start), done.count(), 1);
  return ok ? 0 : 1;
}

int download(const std::string& base, const std::string& bytes) {
  zutest::CallCounter done;
  std::uintmax_t size = 0;
  const auto start = Clock::now();
  zu::URLSession::shared()
      ->downloadTask(zu::URLRequest(url(base, "/bytes?size=" + bytes)),
                     [&](auto location, auto, auto error) {
                       if (!error) size = std::filesystem::file_size(location->path());
                       done.called();
                     })
      ->resume();
  done.waitFor(1, std::chrono::seconds(600));
  report(since(start), done.count(), 1);
  return size == std::stoull(bytes) ? 0 : 1;
}

int json(const std::string& base, int count) {
  auto networking = std::make_shared<zu::ZuNetworking>("app-token bench", "Bench.JSON");
  zutest::CallCounter done;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    networking->sendRequest(url(base, "/echo"), "POST", {}, zu::AnyCodable::Dictionary{{"i", i}}, false,
                            [&](auto payload, auto error) {
                              if (payload && !error) done.called();
                            });
    if (!done.waitFor(i + 1, std::chrono::seconds(30))) break;
  }
  report(since(start), done.count(), count);
  return done.count() == count ? 0 : 1;
}

int background(const std::string& base, const std::string& file, int count) {
  auto networking = std::make_shared<zu::ZuNetworking>(std::nullopt, "Bench.Background");
  zutest::CallCounter done;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    networking->uploadRequest(url(base, "/upload"), true, "PUT", "application/octet-stream", {},
                              zu::URL::fileURLWithPath(file), [&](auto payload, auto error) {
                                if (payload && !error) done.called();
                              });
  }
  done.waitFor(count, std::chrono::seconds(120));
  report(since(start), done.count(), count);
  return done.count() == count ? 0 : 1;
}

int run(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "serve") return serve();
  if (argc < 5) {
    std::cerr << "usage: see the top of network_bench.cpp\n";
    return 2;
  }
  zu::URLSession::setAdditionalCertificateAuthorityFile(std::string(argv[3]));
  if (mode == "upload") return upload(argv[2], argv[4]);
  if (mode == "download") return download(argv[2], argv[4]);
  if (mode == "json") return json(argv[2], std::stoi(argv[4]));
  if (mode == "background" && argc > 5) {
    zu::ZuFileManager::setApplicationDataDirectory(std::filesystem::path(argv[4]).parent_path() / "appdata");
    return background(argv[2], argv[4], std::stoi(argv[5]));
  }
  return 2;
}

}  // namespace

// A bad number on the command line or a server that cannot start ends the run with its reason.
int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "network_bench: " << error.what() << "\n";
    return 1;
  }
}

// Starts and stops the reference service for a CTest fixture: the tests that need it run in processes of
// their own, between the two.
//
//   kiv-service-fixture start DIR   start kiv-service with a fresh data folder in DIR on a free loopback
//                                   port; write DIR/fixture (base URL, CA file, token, process id); return
//                                   with the service still running
//   kiv-service-fixture stop DIR    stop the service that DIR/fixture names; fail when it had stopped by
//                                   itself or reported a fault in its log
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include "integration/ServiceAddress.hpp"
#include "tools/kiv-service/ServiceProcess.hpp"

namespace {

using kiv::service::test::ServiceProcess;
using kivtest::ServiceAddress;

// The fixture's own service: DIR/fixture names its process, and its command line names DIR's data folder.
// Both must hold before a process id from a file is signalled, as ids are reused.
bool isFixtureService(const std::filesystem::path& dir, const ServiceAddress& address) {
  std::ifstream commandLine("/proc/" + std::to_string(address.pid) + "/cmdline", std::ios::binary);
  const std::string arguments{std::istreambuf_iterator<char>(commandLine), std::istreambuf_iterator<char>()};
  return address.pid > 0 && arguments.find((dir / "data").string()) != std::string::npos;
}

// Stops the service of an earlier run, if it is still there.
void stopLeftover(const std::filesystem::path& dir) {
  const auto address = ServiceAddress::read(dir);
  if (address && isFixtureService(dir, *address)) ServiceProcess::terminate(address->pid);
}

// Stops the fixture's service. Fails when it stopped by itself during the tests, did not stop on SIGTERM, or
// wrote a sanitizer's or the runtime's report into its log.
int stop(const std::filesystem::path& dir) {
  const auto address = ServiceAddress::read(dir);
  if (!address) return 0;  // it never started, and the start test said so
  const bool running = isFixtureService(dir, *address);
  const bool stopped = running && ServiceProcess::terminate(address->pid);
  std::ifstream in(dir / "data" / "service.log");
  const std::string log{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (stopped && !ServiceProcess::holdsFaultReport(log)) return 0;
  static_cast<void>(std::fprintf(stderr, "kiv-service %s; its log:\n%s\n",
                                 running ? "did not end cleanly" : "stopped by itself", log.c_str()));
  return 1;
}

int start(const std::filesystem::path& dir) {
  stopLeftover(dir);  // a service left by an interrupted run
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  ServiceProcess service(dir / "data", kivtest::testServiceOptions());
  service.start();
  const ServiceAddress address{service.baseUrl(), service.caFile().string(), kivtest::kServiceToken,
                               service.release()};
  address.write(dir);
  std::printf("kiv-service fixture at %s (process %d)\n", address.baseURL.c_str(), address.pid);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    static_cast<void>(std::fprintf(stderr, "usage: kiv-service-fixture start|stop DIR\n"));
    return 2;
  }
  const std::string command = argv[1];
  try {
    if (command == "start") return start(argv[2]);
    if (command == "stop") return stop(argv[2]);
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "kiv-service-fixture: %s\n", error.what()));
    return 1;
  }
  return 2;
}

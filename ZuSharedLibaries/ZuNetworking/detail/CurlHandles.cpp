#include "ZuNetworking/detail/CurlHandles.hpp"

#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include "ZuFoundation/FatalError.hpp"

namespace zu::detail {
namespace {

struct RetiredWorkers {
  std::mutex mutex;
  std::vector<std::thread> threads;
};

RetiredWorkers& retiredWorkers() {
  // Never destroyed: it is used by an exit handler.
  static auto* instance = new RetiredWorkers;
  return *instance;
}

void joinRetiredWorkers() {
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(retiredWorkers().mutex);
    threads.swap(retiredWorkers().threads);
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace

void ensureCurlGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("curl_global_init failed");
    // Registered after the TLS library's own exit handler, so it runs first.
    if (std::atexit(&joinRetiredWorkers) != 0) fatalError("atexit failed");
  });
}

void retireWorker(std::thread worker) {
  std::lock_guard lock(retiredWorkers().mutex);
  retiredWorkers().threads.push_back(std::move(worker));
}

}  // namespace zu::detail

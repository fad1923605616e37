#include "ZuNetworking/detail/CurlHandles.hpp"

#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include "ZuFoundation/FatalError.hpp"

namespace zu::detail {
namespace {

// The session workers that must end before the process does.
struct Workers {
  struct Running {
    std::weak_ptr<void> owner;
    std::function<void()> stop;
  };
  std::mutex mutex;
  std::vector<Running> running;
  std::vector<std::thread> retired;
};

Workers& workers() {
  // Never destroyed: it is used by an exit handler.
  static auto* instance = new Workers;
  return *instance;
}

void stopWorkers() {
  std::vector<Workers::Running> running;
  {
    std::lock_guard lock(workers().mutex);
    running.swap(workers().running);
  }
  for (auto& [owner, stop] : running) {
    if (const auto alive = owner.lock()) stop();
  }
  std::vector<std::thread> retired;
  {
    std::lock_guard lock(workers().mutex);
    retired.swap(workers().retired);
  }
  // A completion that exits the process runs this on its own worker, which cannot wait for itself.
  for (auto& thread : retired) {
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();
    } else {
      thread.join();
    }
  }
}

}  // namespace

void ensureCurlGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("curl_global_init failed");
    // Registered after the TLS library's own exit handler, so it runs first.
    if (std::atexit(&stopWorkers) != 0) fatalError("atexit failed");
  });
}

void stopAtExit(std::weak_ptr<void> owner, std::function<void()> stop) {
  std::lock_guard lock(workers().mutex);
  std::erase_if(workers().running, [](const Workers::Running& each) { return each.owner.expired(); });
  workers().running.push_back({std::move(owner), std::move(stop)});
}

void retireWorker(std::thread worker) {
  std::lock_guard lock(workers().mutex);
  workers().retired.push_back(std::move(worker));
}

}  // namespace zu::detail

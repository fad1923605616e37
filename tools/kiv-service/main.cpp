#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <thread>
#include <variant>

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include "Options.hpp"
#include "Pdf.hpp"
#include "Service.hpp"

namespace {

// SIGINT and SIGTERM are taken by one thread with sigwait, which may then call into the server safely; every
// other thread (the server's pool included, made later) inherits the blocked mask.
sigset_t blockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// Every client connection is a descriptor: the soft limit (often 1,024) is raised as far as the hard one
// allows.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit));
  }
}

int serve(const kiv::service::Options& options) {
  const sigset_t signals = blockStopSignals();
  raiseDescriptorLimit();
  std::filesystem::create_directories(options.dataDir);
  kiv::service::Service service(options);
  const int port = service.bind();
  if (port == 0) {
    static_cast<void>(std::fprintf(stderr, "kiv-service: cannot listen on 127.0.0.1:%d\n", options.port));
    return 1;
  }
  std::printf("kiv-service listening on https://127.0.0.1:%d\n", port);
  std::printf("kiv-service CA certificate: %s\n", service.tls().caCertificate.c_str());
  static_cast<void>(std::fflush(stdout));

  std::atomic<bool> stopRequested = false;
  std::thread stopper([&] {
    int received = 0;
    sigwait(&signals, &received);
    stopRequested = true;
    service.stop();
  });
  const bool ran = service.run();
  kiv::service::releaseRenderingCaches();
  // A server that ended by itself leaves the stopper waiting for a signal that never comes.
  if (stopRequested) {
    stopper.join();
  } else {
    stopper.detach();
  }
  return ran ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::variant<kiv::service::Options, int> parsed = kiv::service::parseOptions(argc, argv);
  if (const int* exitCode = std::get_if<int>(&parsed)) return *exitCode;
  try {
    return serve(std::get<kiv::service::Options>(parsed));
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "kiv-service: %s\n", error.what()));
    return 1;
  }
}

// An application that starts the upload of a file's content and is killed while it runs: it exits at once
// when the upload has begun to move. The test that runs it plays the relaunched application.
//
// usage: KivAPIBackgroundUploadChild <app data dir> <base URL> <CA file> <token> <report slug> <file name>
//        <file slug> <date taken>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

#include "KivSDK/API/KivAPI.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

int main(int argc, char** argv) {
  if (argc != 9) return 2;
  zu::ZuFileManager::setApplicationDataDirectory(argv[1]);
  kiv::KivAPI::set_ZuNetworkingType(kiv::KivAPI::redirectedNetworkingType(argv[2], argv[3]).value());
  kiv::KivAPI::setup(argv[4]);
  kiv::KivReport report("Interrupted");
  report.slug = argv[5];
  kiv::KivFile file(argv[6], "jpg", zu::Date(std::strtod(argv[8], nullptr)));
  file.slug = argv[7];

  std::mutex mutex;
  std::condition_variable failed;
  bool failure = false;
  kiv::KivAPI::uploadContent(
      file, report,
      [&](const std::optional<kiv::KivFile>&, const std::optional<zu::Error>&) {
        std::lock_guard lock(mutex);
        failure = true;  // the upload was meant to outlive this process
        failed.notify_all();
      },
      [](std::int64_t, std::int64_t) { std::_Exit(0); });
  std::unique_lock lock(mutex);
  failed.wait_for(lock, std::chrono::seconds(60), [&] { return failure; });
  return 1;
}

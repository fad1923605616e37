// The README's quick start, compiled with every build so that it stays true.
#include <KivSDK/API/KivAPI.hpp>
#include <KivSDK/Model/KivModel.hpp>
#include <ZuDate/ZuDate.hpp>

#include <future>
#include <iostream>

int main() {
  // Load the stored reports once, at start-up: the first load on a device sets the store up and discards
  // any list persisted before it.
  std::vector<kiv::KivReport> reports = kiv::KivModel::loadFromStore();
  kiv::KivAPI::setup("my-app-token");

  // The photo's bytes must stand at photo.fileURL(), in the SDK's media folder.
  const zu::Date now = zu::Date::now();
  kiv::KivReport report("Water damage, kitchen");
  report.files.emplace_back(zu::stringWithLocalDateTimeForFileNames(now), "jpg", now);
  report.setMetadata(zu::AnyCodable::Dictionary{{"room", "kitchen"}});
  report = report.withCalculatedHash();  // records are values: keep the copy an operation returns

  // Completions run once each, on the networking thread; this program just waits for the last one.
  std::promise<void> finished;
  kiv::KivAPI::send(report, "en", [&](std::optional<kiv::KivReport> sent, std::optional<zu::Error> error) {
    if (!sent) {
      std::cerr << "send: " << error->localizedDescription() << "\n";
      return finished.set_value();
    }
    // `sent` carries the service's slugs: persist it, then upload each file's content.
    reports.push_back(*sent);
    kiv::KivModel::persist(reports);
    kiv::KivAPI::uploadContent(sent->files[0], *sent, [&](auto file, std::optional<zu::Error> failure) {
      std::cout << (file ? "stored at " + file->remoteUrl->absoluteString()
                         : failure->localizedDescription());
      finished.set_value();
    });
  });
  finished.get_future().wait();
}

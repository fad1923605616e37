// The README's quick start, compiled with every build so that it stays true.
#include <AnyCodable/JSONSerialization.hpp>
#include <KivSDK/Model/KivModel.hpp>
#include <ZuDate/ZuDate.hpp>

int main() {
  // Load the stored reports once, at start-up: the first load on a device sets the store up and discards
  // any list persisted before it.
  std::vector<kiv::KivReport> reports = kiv::KivModel::loadFromStore();

  // The photo's bytes must stand at file.fileURL(), in the SDK's media folder.
  const zu::Date now = zu::Date::now();
  kiv::KivFile photo(zu::stringWithLocalDateTimeForFileNames(now), "jpg", now);
  kiv::KivReport report("Water damage, kitchen");
  report.files.push_back(photo);
  report.setMetadata(zu::AnyCodable::Dictionary{{"room", "kitchen"}});

  // Records are values: every operation returns a new copy, which the caller keeps.
  const kiv::KivReport hashed = report.withCalculatedHash();
  reports.push_back(hashed);
  kiv::KivModel::persist(reports);

  const auto json = zu::JSONSerialization::data(hashed.dictionaryRepresentation());
  if (!json) return 1;  // json.error() says why
  // ... send *json to the service
}

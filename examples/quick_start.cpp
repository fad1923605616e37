// quick_start "Water damage, kitchen" leak.jpg leak.mp4: a report of those files, certified by the service.
#include <KivSDK/API/KivAPI.hpp>
#include <KivSDK/API/KivCertification.hpp>
#include <KivSDK/Model/KivFileImport.hpp>
#include <KivSDK/Model/KivModel.hpp>
#include <KivSDK/Model/KivReportList.hpp>

#include <future>
#include <iostream>

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: quick_start REPORT-NAME PHOTO-OR-VIDEO...\n";
    return 2;
  }
  // Load the stored reports once, at start-up: the first load on a device sets the store up and discards
  // any list persisted before it.
  std::vector<kiv::KivReport> reports = kiv::KivModel::loadFromStore();
  kiv::KivAPI::setup("my-app-token");

  // A report's name also names its certificate's file: no two reports may share one.
  if (const auto taken = kiv::checkNewReportName(reports, argv[1])) {
    std::cerr << taken->localizedDescription() << "\n";
    return 1;
  }
  kiv::KivReport report(argv[1]);
  report.setMetadata(zu::AnyCodable::Dictionary{{"room", "kitchen"}});
  // Each file is copied into the SDK's media folder, under a name no other file has, with its digest.
  for (int i = 2; i < argc; ++i) {
    const auto file = kiv::importMediaFile(zu::URL::fileURLWithPath(argv[i]), report, reports);
    if (!file) {
      std::cerr << file.error().localizedDescription() << "\n";
      return 1;
    }
    report.files.push_back(*file);
  }
  reports.push_back(report);
  kiv::KivModel::persist(reports);

  // Send the report, upload its files' content and wait for "confirmed". The completion runs once, on a
  // thread of the flow's own; this program just waits for it.
  kiv::KivCertification::Options options;
  options.progress = [](const kiv::KivFile& file, std::int64_t done, std::int64_t expected) {
    std::cout << file.name << "." << file.ext << ": " << done << " of " << expected << " bytes\n";
  };
  std::promise<kiv::KivCertification::Outcome> finished;
  kiv::KivCertification::certify(report, options,
                                 [&](auto outcome) { finished.set_value(std::move(outcome)); });
  const kiv::KivCertification::Outcome outcome = finished.get_future().get();

  reports.back() = outcome.report;  // records are values: keep the copy the flow returns, whatever happened
  kiv::KivModel::persist(reports);
  if (outcome.error) {
    std::cerr << outcome.error->localizedDescription() << "\n";
    return 1;
  }
  std::cout << report.name << ": " << kiv::KivReport::string(outcome.report.proofStatus()) << "\n";
  return 0;
}

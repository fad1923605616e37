// Provenance on the device and offline; run.sh beside it runs the flow with and without provenance and the
// reference tools.
//
//   provenance_bench sign <folder> <count> <kept count>
//     Signs <count> statements about one file with a device key made in <folder>, the JWS alone, then
//     <kept count> kept in the report's statements file as an import keeps them (written durably). Prints
//     jws_seconds and kept_seconds, each per statement.
//   provenance_bench verify <CA file> <certificate> <count> [FILE or FOLDER...]
//     Checks the certificate <count> times, with the files given. Prints seconds per check and passed.
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "KivSDK/Provenance/FileStatement.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "KivSDK/Provenance/ProvenanceVerifier.hpp"
#include "ProcessFigures.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace {

using benchfigures::Clock;
using benchfigures::since;

int sign(const std::string& folder, int count, int keptCount) {
  zu::ZuFileManager::setApplicationDataDirectory(folder);
  const auto key = kiv::KivProvenance::deviceSigner();
  if (!key) return 1;
  kiv::KivReport report("Benchmark");
  kiv::KivFile file("20240501_120000", "jpg", zu::Date(7.36e8));
  file.hash = std::string(64, 'a');
  report.files = {file};

  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    if (!kiv::FileStatement::about(file, (*key)->keyId(), zu::Date::now())->sign(**key)) return 1;
  }
  const double jws = since(start) / count;
  start = Clock::now();
  for (int i = 0; i < keptCount; ++i) {
    if (!kiv::KivProvenance::signStatement(report, file)) return 1;
  }
  std::cout << "jws_seconds=" << jws << "\nkept_seconds=" << since(start) / keptCount << "\n";
  return 0;
}

int verify(const std::string& caFile, const std::string& certificate, int count,
           const std::vector<std::string>& files) {
  const auto ca = zu::detail::readWholeFile(caFile, 1 << 20);
  const auto pdf = zu::detail::readWholeFile(certificate, 64 << 20);
  if (!ca || !pdf) return 1;
  const auto verifier = kiv::ProvenanceVerifier::trusting(std::string(ca->begin(), ca->end()));
  if (!verifier) return 1;
  bool passed = true;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) passed = verifier->verify(*pdf, files).passed() && passed;
  std::cout << "seconds=" << since(start) / count << "\npassed=" << (passed ? 1 : 0) << "\n";
  return passed ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 4 && arguments[0] == "sign")
    return sign(arguments[1], std::stoi(arguments[2]), std::stoi(arguments[3]));
  if (arguments.size() >= 4 && arguments[0] == "verify") {
    return verify(arguments[1], arguments[2], std::stoi(arguments[3]),
                  {arguments.begin() + 4, arguments.end()});
  }
  std::cerr << "usage: provenance_bench sign <folder> <count> <kept count>\n"
               "       provenance_bench verify <CA file> <certificate> <count> [FILE or FOLDER...]\n";
  return 2;
}

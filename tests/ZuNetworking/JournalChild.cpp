// Starts background transfers and dies at once, as an application killed mid-transfer would. The test that
// runs it re-creates the session in its own process and expects the transfers' events there.
//
// usage: ZuNetworkingJournalChild <app data dir> <CA file> <identifier> <download URL> <upload URL> <upload
// file>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuNetworking/URLSession.hpp"

int main(int argc, char** argv) {
  if (argc != 7) return 2;
  // The download's temporary file outlives this process, as it would a killed one: it is left in the
  // application's folder, which the test removes, rather than in the system's.
  std::filesystem::create_directories(argv[1]);
  ::setenv("TMPDIR", argv[1], 1);  // NOLINT(concurrency-mt-unsafe): no other thread yet
  zu::ZuFileManager::setApplicationDataDirectory(argv[1]);
  zu::URLSession::setAdditionalCertificateAuthorityFile(argv[2]);
  auto delegate = std::make_shared<zu::URLSessionDelegate>();
  auto session = zu::URLSession::make(zu::URLSessionConfiguration::background(argv[3]), delegate);
  auto download = session->downloadTask(zu::URLRequest(*zu::URL::fromString(argv[4])), {});
  zu::URLRequest put(*zu::URL::fromString(argv[5]));
  put.httpMethod = "PUT";
  auto upload = session->uploadTask(put, zu::URL::fileURLWithPath(argv[6]), {});
  download->resume();
  upload->resume();
  std::_Exit(0);
}

#include "TlsMaterial.hpp"

#include <fcntl.h>
#include <sys/file.h>

#include <stdexcept>
#include <string>

#include <openssl/x509v3.h>

#include "Certificates.hpp"

namespace kiv::service {
namespace {

void makeMaterial(const TlsMaterial& paths) {
  Key caKey = makeEcKey();
  Certificate ca = issueCertificate(caKey.get(),
                                    {"kiv-service local CA",
                                     3650,
                                     {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                                      {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                      {NID_subject_key_identifier, "hash"}}},
                                    nullptr, caKey.get());
  Key serverKey = makeEcKey();
  // 825 days is the longest lifetime that strict TLS clients accept for a server certificate.
  Certificate server = issueCertificate(serverKey.get(),
                                        {"localhost",
                                         825,
                                         {{NID_basic_constraints, "critical,CA:FALSE"},
                                          {NID_key_usage, "critical,digitalSignature,keyEncipherment"},
                                          {NID_ext_key_usage, "serverAuth"},
                                          {NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1"},
                                          {NID_authority_key_identifier, "keyid:always"}}},
                                        ca.get(), caKey.get());
  writeKey(caKey.get(), paths.caKey);
  writeKey(serverKey.get(), paths.serverKey);
  writeCertificate(server.get(), paths.serverCertificate);
  // The CA file goes last: its presence marks the material as complete.
  writeCertificate(ca.get(), paths.caCertificate);
}

}  // namespace

Descriptor lockKeyFolder(const std::filesystem::path& dataDir) {
  Descriptor lock(::open((dataDir / "tls" / ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (lock.get() < 0 || ::flock(lock.get(), LOCK_EX) != 0)
    throw std::runtime_error("TLS set-up failed: locking the TLS folder");
  return lock;
}

TlsMaterial ensureTlsMaterial(const std::filesystem::path& dataDir) {
  const std::filesystem::path tlsDir = dataDir / "tls";
  std::filesystem::create_directories(tlsDir);
  std::filesystem::permissions(tlsDir, std::filesystem::perms::owner_all);
  TlsMaterial paths{dataDir / "ca.pem", tlsDir / "ca-key.pem", tlsDir / "server.pem",
                    tlsDir / "server-key.pem"};
  // Nodes that share the folder and start together make the material once: the first under the lock.
  const Descriptor lock = lockKeyFolder(dataDir);
  if (!std::filesystem::exists(paths.caCertificate) || !std::filesystem::exists(paths.serverCertificate) ||
      !std::filesystem::exists(paths.serverKey)) {
    makeMaterial(paths);
  }
  return paths;
}

}  // namespace kiv::service

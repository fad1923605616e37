#include "TlsMaterial.hpp"

#include <cstdio>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "Crypto.hpp"
#include "Handles.hpp"

namespace kiv::service {
namespace {

using Key = Handle<EVP_PKEY, EVP_PKEY_free>;
using Certificate = Handle<X509, X509_free>;
using File = Handle<FILE, std::fclose>;

constexpr long kDay = 24L * 60 * 60;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("TLS set-up failed: ") + what);
}

// P-256 keys make first start instant and are what every TLS client accepts.
Key makeKey() {
  Key key(EVP_EC_gen("P-256"));
  check(key != nullptr, "key generation");
  return key;
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  Handle<X509_EXTENSION, X509_EXTENSION_free> extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  check(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "certificate extension");
}

Certificate makeCertificate(EVP_PKEY* key, const char* commonName, long days) {
  Certificate certificate(X509_new());
  check(certificate != nullptr, "certificate allocation");
  X509_set_version(certificate.get(), 2);
  const std::string serial = randomBytes(16);
  Handle<BIGNUM, BN_free> number(BN_bin2bn(reinterpret_cast<const unsigned char*>(serial.data()),
                                           static_cast<int>(serial.size()), nullptr));
  BN_clear_bit(number.get(), 127);  // serial numbers must be positive
  BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate.get()));
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), days * kDay);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>("kiv-service"),
                             -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(commonName),
                             -1, -1, 0);
  return certificate;
}

// Writes through a descriptor opened with the final mode, so a key is never readable by others, not even
// briefly.
File openForWriting(const std::filesystem::path& path, mode_t mode) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  check(descriptor >= 0, "open for writing");
  File file(::fdopen(descriptor, "w"));
  if (!file) ::close(descriptor);
  check(file != nullptr, "fdopen");
  return file;
}

void writeCertificate(X509* certificate, const std::filesystem::path& path) {
  File file = openForWriting(path, 0644);
  check(PEM_write_X509(file.get(), certificate) == 1, "write certificate");
}

void writeKey(EVP_PKEY* key, const std::filesystem::path& path) {
  File file = openForWriting(path, 0600);
  check(PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1, "write key");
}

void makeMaterial(const TlsMaterial& paths) {
  Key caKey = makeKey();
  Certificate ca = makeCertificate(caKey.get(), "kiv-service local CA", 3650);
  X509_set_issuer_name(ca.get(), X509_get_subject_name(ca.get()));
  addExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
  addExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
  check(X509_sign(ca.get(), caKey.get(), EVP_sha256()) > 0, "sign CA");

  Key serverKey = makeKey();
  // 825 days is the longest lifetime that strict TLS clients accept for a server certificate.
  Certificate server = makeCertificate(serverKey.get(), "localhost", 825);
  X509_set_issuer_name(server.get(), X509_get_subject_name(ca.get()));
  addExtension(server.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(server.get(), ca.get(), NID_key_usage, "critical,digitalSignature,keyEncipherment");
  addExtension(server.get(), ca.get(), NID_ext_key_usage, "serverAuth");
  addExtension(server.get(), ca.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1");
  addExtension(server.get(), ca.get(), NID_authority_key_identifier, "keyid:always");
  check(X509_sign(server.get(), caKey.get(), EVP_sha256()) > 0, "sign server certificate");

  writeKey(caKey.get(), paths.serverKey.parent_path() / "ca-key.pem");
  writeKey(serverKey.get(), paths.serverKey);
  writeCertificate(server.get(), paths.serverCertificate);
  // The CA file goes last: its presence marks the material as complete.
  writeCertificate(ca.get(), paths.caCertificate);
}

}  // namespace

TlsMaterial ensureTlsMaterial(const std::filesystem::path& dataDir) {
  const std::filesystem::path tlsDir = dataDir / "tls";
  std::filesystem::create_directories(tlsDir);
  std::filesystem::permissions(tlsDir, std::filesystem::perms::owner_all);
  TlsMaterial paths{dataDir / "ca.pem", tlsDir / "server.pem", tlsDir / "server-key.pem"};
  // Nodes that share the folder and start together make the material once: the first under the lock.
  const Descriptor lock(::open((tlsDir / ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  check(lock.get() >= 0 && ::flock(lock.get(), LOCK_EX) == 0, "locking the TLS folder");
  if (!std::filesystem::exists(paths.caCertificate) || !std::filesystem::exists(paths.serverCertificate) ||
      !std::filesystem::exists(paths.serverKey)) {
    makeMaterial(paths);
  }
  return paths;
}

}  // namespace kiv::service

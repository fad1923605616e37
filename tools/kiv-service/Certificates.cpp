#include "Certificates.hpp"

#include <cstdio>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "Crypto.hpp"

namespace kiv::service {
namespace {

using File = Handle<FILE, std::fclose>;

constexpr long kDay = 24L * 60 * 60;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("certificate set-up failed: ") + what);
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  Handle<X509_EXTENSION, X509_EXTENSION_free> extension(
      X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  check(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "certificate extension");
}

void setRandomSerial(X509* certificate) {
  const std::string serial = randomBytes(16);
  Handle<BIGNUM, BN_free> number(BN_bin2bn(reinterpret_cast<const unsigned char*>(serial.data()),
                                           static_cast<int>(serial.size()), nullptr));
  check(number != nullptr, "serial number");
  BN_clear_bit(number.get(), 127);  // serial numbers must be positive
  check(BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr, "serial number");
}

void setSubject(X509* certificate, const std::string& commonName) {
  X509_NAME* name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>("kiv-service"),
                             -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
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

File openForReading(const std::filesystem::path& path) {
  File file(std::fopen(path.c_str(), "re"));
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return file;
}

}  // namespace

Key makeEcKey() {
  Key key(EVP_EC_gen("P-256"));
  check(key != nullptr, "key generation");
  return key;
}

Certificate issueCertificate(EVP_PKEY* key, const CertificateProfile& profile, X509* issuer,
                             EVP_PKEY* issuerKey) {
  Certificate certificate(X509_new());
  check(certificate != nullptr, "certificate allocation");
  X509_set_version(certificate.get(), 2);
  setRandomSerial(certificate.get());
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), profile.days * kDay);
  X509_set_pubkey(certificate.get(), key);
  setSubject(certificate.get(), profile.commonName);
  X509* signer = issuer ? issuer : certificate.get();
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer));
  for (const auto& [nid, value] : profile.extensions) addExtension(certificate.get(), signer, nid, value);
  check(X509_sign(certificate.get(), issuerKey, EVP_sha256()) > 0, "sign certificate");
  return certificate;
}

void writeCertificate(X509* certificate, const std::filesystem::path& path) {
  File file = openForWriting(path, 0644);
  check(PEM_write_X509(file.get(), certificate) == 1, "write certificate");
}

void writeKey(EVP_PKEY* key, const std::filesystem::path& path) {
  File file = openForWriting(path, 0600);
  check(PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1, "write key");
}

Certificate readCertificate(const std::filesystem::path& path) {
  File file = openForReading(path);
  Certificate certificate(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
  if (!certificate) throw std::runtime_error(path.string() + " holds no PEM certificate");
  return certificate;
}

Key readKey(const std::filesystem::path& path) {
  File file = openForReading(path);
  Key key(PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr));
  if (!key) throw std::runtime_error(path.string() + " holds no unencrypted PEM private key");
  return key;
}

std::string toPem(X509* certificate) {
  Handle<BIO, BIO_free> memory(BIO_new(BIO_s_mem()));
  check(memory && PEM_write_bio_X509(memory.get(), certificate) == 1, "PEM encoding");
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

}  // namespace kiv::service

#include "ProvenanceKeys.hpp"

#include <stdexcept>

#include <openssl/x509v3.h>

#include "Crypto.hpp"

namespace kiv::service {
namespace {

// Ten years, like the CA: a certificate is checked long after it is issued.
constexpr long kLifetimeDays = 3650;

// What a document signer needs for NSS (and so for poppler) to accept it.
const CertificateProfile kSigningProfile{"kiv-service document signing",
                                         kLifetimeDays,
                                         {{NID_basic_constraints, "critical,CA:FALSE"},
                                          {NID_key_usage, "critical,digitalSignature,nonRepudiation"},
                                          {NID_ext_key_usage, "emailProtection"},
                                          {NID_subject_key_identifier, "hash"},
                                          {NID_authority_key_identifier, "keyid:always"}}};

// RFC 3161 wants the timeStamping usage critical and alone.
const CertificateProfile kTsaProfile{"kiv-service time-stamping",
                                     kLifetimeDays,
                                     {{NID_basic_constraints, "critical,CA:FALSE"},
                                      {NID_key_usage, "critical,digitalSignature"},
                                      {NID_ext_key_usage, "critical,timeStamping"},
                                      {NID_subject_key_identifier, "hash"},
                                      {NID_authority_key_identifier, "keyid:always"}}};

struct Pair {
  Certificate certificate;
  Key key;
};

// The certificate marks a complete pair: it is written after its key, so a start that was cut short between
// the two issues both again.
Pair ensurePair(const std::filesystem::path& certificatePath, const std::filesystem::path& keyPath,
                const CertificateProfile& profile, const TlsMaterial& tls) {
  if (std::filesystem::exists(certificatePath)) {
    Pair pair{readCertificate(certificatePath), readKey(keyPath)};
    if (X509_check_private_key(pair.certificate.get(), pair.key.get()) != 1) {
      throw std::runtime_error(keyPath.string() + " is not the key of " + certificatePath.string());
    }
    return pair;
  }
  if (!std::filesystem::exists(tls.caKey)) {
    throw std::runtime_error("cannot issue " + certificatePath.string() + ": the CA key " +
                             tls.caKey.string() + " is missing; supply the certificate and its key");
  }
  const Certificate ca = readCertificate(tls.caCertificate);
  const Key caKey = readKey(tls.caKey);
  Pair pair{nullptr, makeEcKey()};
  pair.certificate = issueCertificate(pair.key.get(), profile, ca.get(), caKey.get());
  writeKey(pair.key.get(), keyPath);
  writeCertificate(pair.certificate.get(), certificatePath);
  return pair;
}

std::string subjectEntry(X509* certificate, int nid) {
  X509_NAME* name = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(name, nid, -1);
  if (index < 0) return {};
  unsigned char* text = nullptr;
  const int size = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
  if (size < 0) return {};
  std::string value(reinterpret_cast<char*>(text), static_cast<std::size_t>(size));
  OPENSSL_free(text);
  return value;
}

std::string publicKeyFingerprint(X509* certificate) {
  unsigned char* der = nullptr;
  const int size = i2d_PUBKEY(X509_get0_pubkey(certificate), &der);
  if (size <= 0) throw std::runtime_error("the signing certificate's public key cannot be encoded");
  std::string fingerprint = sha256Hex({reinterpret_cast<const char*>(der), static_cast<std::size_t>(size)});
  OPENSSL_free(der);
  return fingerprint;
}

void checkFitness(const ProvenanceKeys& keys, const std::filesystem::path& dataDir) {
  char group[32] = {};
  if (!EVP_PKEY_is_a(keys.signingKey.get(), "EC") ||
      EVP_PKEY_get_group_name(keys.signingKey.get(), group, sizeof group, nullptr) != 1 ||
      std::string_view(group) != "prime256v1") {
    throw std::runtime_error((dataDir / "signing-key.pem").string() +
                             " must be an EC P-256 key: manifests are signed with ES256");
  }
  if (X509_check_purpose(keys.tsa.get(), X509_PURPOSE_TIMESTAMP_SIGN, 0) != 1) {
    throw std::runtime_error((dataDir / "tsa.pem").string() +
                             " must carry the critical extended key usage timeStamping");
  }
}

}  // namespace

ProvenanceKeys ensureProvenanceKeys(const std::filesystem::path& dataDir, const TlsMaterial& tls) {
  const Descriptor lock = lockKeyFolder(dataDir);
  Pair signing = ensurePair(dataDir / "signing.pem", dataDir / "signing-key.pem", kSigningProfile, tls);
  Pair tsa = ensurePair(dataDir / "tsa.pem", dataDir / "tsa-key.pem", kTsaProfile, tls);
  ProvenanceKeys keys{readCertificate(tls.caCertificate),
                      std::move(signing.certificate),
                      std::move(signing.key),
                      std::move(tsa.certificate),
                      std::move(tsa.key),
                      {},
                      {}};
  checkFitness(keys, dataDir);
  keys.fingerprint = publicKeyFingerprint(keys.signing.get());
  keys.issuerName = subjectEntry(keys.signing.get(), NID_organizationName);
  if (keys.issuerName.empty()) keys.issuerName = subjectEntry(keys.signing.get(), NID_commonName);
  return keys;
}

}  // namespace kiv::service

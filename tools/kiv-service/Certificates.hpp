#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "Handles.hpp"

namespace kiv::service {

using Key = Handle<EVP_PKEY, EVP_PKEY_free>;
using Certificate = Handle<X509, X509_free>;

/// A fresh EC P-256 key: made at once, accepted by every TLS client, and the curve of ES256.
Key makeEcKey();

/// What a certificate is issued for: its common name, lifetime and X.509v3 extensions in OpenSSL's
/// configuration syntax, e.g. {NID_key_usage, "critical,digitalSignature"}.
struct CertificateProfile {
  std::string commonName;
  long days = 0;
  std::vector<std::pair<int, std::string>> extensions;
};

/**
 * A certificate for `key`, subject O=kiv-service and the profile's common name, valid from a day ago (so a
 * client whose clock is a little behind accepts it), signed with SHA-256 by `issuerKey` under `issuer`'s
 * name; with no `issuer` it is self-signed. Throws std::runtime_error when OpenSSL fails.
 */
Certificate issueCertificate(EVP_PKEY* key, const CertificateProfile& profile, X509* issuer,
                             EVP_PKEY* issuerKey);

/// Writes a certificate as PEM, readable by all (0644).
void writeCertificate(X509* certificate, const std::filesystem::path& path);
/// Writes a private key as PKCS#8 PEM through a descriptor opened 0600, so it is never readable by others.
void writeKey(EVP_PKEY* key, const std::filesystem::path& path);

/// Reads a PEM certificate or private key; throws std::runtime_error naming the file when it cannot.
Certificate readCertificate(const std::filesystem::path& path);
Key readKey(const std::filesystem::path& path);

/// The certificate as PEM text.
std::string toPem(X509* certificate);

}  // namespace kiv::service

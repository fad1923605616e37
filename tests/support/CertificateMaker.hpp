#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "AnyCodable/AnyCodable.hpp"
#include "KivSDK/Provenance/DeviceSigner.hpp"
#include "KivSDK/Provenance/detail/OpenSSL.hpp"
#include "ZuFoundation/Data.hpp"

// What the certification service makes, made in the test with OpenSSL: a CA with a signing and a time-stamp
// authority certificate, signed manifests, RFC 3161 time-stamps and signed certificate PDFs. The offline
// checks are tested against these before (and besides) the real service.
namespace kivtest {

using kiv::detail::Certificate;
using kiv::detail::PKey;

PKey newP256Key();
std::string pemOf(X509* certificate);
std::string hex(const zu::Data& bytes);

/// A CA, the service's signing certificate (emailProtection) and its time-stamp authority (timeStamping).
struct TestAuthority {
  explicit TestAuthority(const std::string& name = "Test Service CA");

  PKey caKey = newP256Key();
  Certificate ca;
  PKey signingKey = newP256Key();
  Certificate signing;
  PKey tsaKey = newP256Key();
  Certificate tsa;

  /// The signing key's fingerprint: the hex SHA-256 of its SubjectPublicKeyInfo.
  std::string fingerprint() const;
  std::string caPEM() const { return pemOf(ca.get()); }
};

/// An ES256 compact JWS (R || S signature) of canonical `header` and `payload` by `key`.
std::string signES256(const zu::AnyCodable::Dictionary& header, const zu::AnyCodable::Dictionary& payload,
                      EVP_PKEY* key);

/// A file of a manifest.
struct ManifestEntry {
  std::string fileName;
  std::string sha256;
  std::string statement;  ///< empty: none
};

/// The manifest payload as the service writes it.
zu::AnyCodable::Dictionary manifestPayload(const std::string& slug, const std::string& fingerprint,
                                           const std::vector<ManifestEntry>& files,
                                           const std::vector<const kiv::DeviceSigner*>& deviceKeys);
/// The manifest JWS, signed by `key` for the key id `kid`.
std::string manifestJWS(const zu::AnyCodable::Dictionary& payload, EVP_PKEY* key, const std::string& kid);

/// An RFC 3161 time-stamp response over SHA-256 of `data` by `authority`'s TSA, with policy `policy`.
zu::Data timestampOver(std::string_view data, const TestAuthority& authority,
                       const std::string& policy = "2.25.286676183924113436215391935245312734373");

/// A cross-reference entry of an object in use at `offset` (20 bytes, line end included).
std::string xrefEntry(std::size_t offset);

/// A PDF of `objects` (number to body: "<< ... >>", or a dictionary followed by "stream ... endstream") with
/// one cross-reference table and `trailer` (the dictionary's inside).
zu::Data pdfOf(const std::map<int, std::string>& objects, const std::string& trailer);

/// A certificate PDF carrying `attachments`, its signature added in an incremental update, signed by
/// `signer` with `key`.
zu::Data signedCertificatePdf(const std::map<std::string, std::string>& attachments, X509* signer,
                              EVP_PKEY* key);

}  // namespace kivtest

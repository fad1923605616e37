#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ZuFoundation/Result.hpp"

namespace kiv {

/// One check of a certificate: its name ("pdf-signature", "statement:<file>", "file:<file>"...), whether it
/// holds, and a sentence saying what was found.
struct ProvenanceCheck {
  std::string name;
  bool passed = false;
  std::string message;

  friend bool operator==(const ProvenanceCheck&, const ProvenanceCheck&) = default;
};

/// Every check of one certificate, in order, and what the certificate says as far as it could be read.
struct ProvenanceVerification {
  std::vector<ProvenanceCheck> checks;
  /// The manifest's report slug and name, its issuer's name and key id, and the time-stamp's time (the
  /// service's date text); empty when they could not be read.
  std::string slug;
  std::string reportName;
  std::string issuerName;
  std::string issuerKeyId;
  std::string issuedAt;

  /// Whether every check holds (and there is at least one).
  bool passed() const;
  /// The check of that name, null when there is none.
  const ProvenanceCheck* check(std::string_view name) const;
};

/**
 * Checks a signed certificate PDF offline, with no network and no trust in the PDF's text, against a CA the
 * caller trusts:
 * - "pdf-signature": the document's CMS signature verifies over its byte range, by a certificate that chains
 *   to the CA at the time-stamp's time;
 * - "pdf-coverage": the byte range covers the whole file but the signature itself (nothing was appended);
 * - "manifest-signature": the attached manifest.jws verifies (ES256) with the PDF signer's key, names that
 *   key, and the attached manifest.json is its payload;
 * - "timestamp": the attached timestamp.tsr verifies against the CA (a time-stamp authority's certificate)
 *   and is over the SHA-256 of manifest.jws;
 * - "statement:<file>" for each file of the manifest: the device's statement verifies (EdDSA) under a device
 *   key the manifest lists, and names that file and its digest;
 * - "file:<file>" when files are given: each given file's SHA-256 is the manifest's; every manifest file must
 *   be given, and every given file must be in the manifest.
 *
 * @code
 * auto verifier = kiv::ProvenanceVerifier::trusting(caPEM);
 * kiv::ProvenanceVerification result = verifier->verify(pdfBytes, {"/media/evidence"});
 * for (const auto& check : result.checks) std::cout << check.name << ": " << check.message << "\n";
 * @endcode
 *
 * @par Thread Safety
 * Immutable: one verifier may check many certificates at once, from any threads.
 */
class ProvenanceVerifier {
 public:
  /// A verifier that trusts the certificates of `certificateAuthorityPEM`; fails when it holds none.
  static zu::Result<ProvenanceVerifier> trusting(std::string_view certificateAuthorityPEM);

  /**
   * Checks the certificate `pdf` and, when given, the media files `files` (paths of files, or of folders
   * whose files are taken, matched to the manifest by file name). Never fails: a document that cannot be
   * read fails its checks, with the reason.
   */
  ProvenanceVerification verify(std::span<const std::uint8_t> pdf,
                                const std::vector<std::string>& files) const;

 private:
  struct Authorities;
  explicit ProvenanceVerifier(std::shared_ptr<const Authorities> authorities)
      : authorities_(std::move(authorities)) {}

  std::shared_ptr<const Authorities> authorities_;
};

}  // namespace kiv

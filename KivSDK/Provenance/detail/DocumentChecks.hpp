#pragma once

#include <ctime>
#include <map>
#include <optional>
#include <span>
#include <string>

#include "KivSDK/Provenance/ProvenanceVerifier.hpp"
#include "KivSDK/Provenance/detail/CertificatePdf.hpp"
#include "KivSDK/Provenance/detail/JWS.hpp"
#include "KivSDK/Provenance/detail/OpenSSL.hpp"

// The checks of a certificate document: its PDF signature and coverage, its manifest and its time-stamp.
namespace kiv::detail {

/// What the checks read from a certificate PDF, read once.
struct CertificateParts {
  std::span<const std::uint8_t> pdf;
  zu::Result<PdfSignature> signature;
  zu::Result<std::map<std::string, zu::Data>> attachments;

  static CertificateParts read(std::span<const std::uint8_t> pdf);
  /// The attachment `name`, or why there is none.
  zu::Result<const zu::Data*> attachment(const std::string& name) const;
};

/// What the time-stamp check learnt: when the manifest was stamped (from the token, even one that fails).
struct TimestampCheck {
  ProvenanceCheck check;
  std::optional<std::time_t> time;
};
TimestampCheck checkTimestamp(const CertificateParts& parts, const STACK_OF(X509) * authorities);

/// The signature check, and the signer's certificate when the signature could be read at all.
struct SignatureCheck {
  ProvenanceCheck check;
  Certificate signer;
};
/// Verifies the PDF's CMS signature at `time` (the time-stamp's, else now).
SignatureCheck checkPdfSignature(const CertificateParts& parts, const STACK_OF(X509) * authorities,
                                 std::time_t time);
ProvenanceCheck checkCoverage(const CertificateParts& parts);

/// The manifest check, and the manifest when its JWS could be read (its signature holding or not).
struct ManifestCheck {
  ProvenanceCheck check;
  std::optional<CompactJWS> manifest;
};
ManifestCheck checkManifest(const CertificateParts& parts, X509* signer);

/// The service's date text of a time.
std::string dateText(std::time_t time);

}  // namespace kiv::detail

#pragma once

#include <filesystem>
#include <string>

#include "Certificates.hpp"
#include "TlsMaterial.hpp"

namespace kiv::service {

/// The service's provenance identity: who signs manifests and certificates, and its time-stamp authority.
struct ProvenanceKeys {
  Certificate ca;
  Certificate signing;  ///< EC P-256: signs manifests (ES256) and certificate PDFs (CMS)
  Key signingKey;
  Certificate tsa;  ///< EC P-256 with the critical timeStamping usage: signs RFC 3161 time-stamps
  Key tsaKey;
  std::string fingerprint;  ///< hex SHA-256 of the signing certificate's DER SubjectPublicKeyInfo
  std::string issuerName;   ///< the signing certificate's organisation (or common name)
};

/**
 * Loads the signing certificate (DIR/signing.pem, key DIR/signing-key.pem) and the TSA certificate
 * (DIR/tsa.pem, key DIR/tsa-key.pem) beside the CA in the data folder. A certificate that is absent is issued
 * by the service CA on the spot, with a fresh key; one that is present is the operator's to replace and is
 * used as it is, once its key is found to match it and it is fit for its use. Throws std::runtime_error with
 * what to fix.
 */
ProvenanceKeys ensureProvenanceKeys(const std::filesystem::path& dataDir, const TlsMaterial& tls);

}  // namespace kiv::service

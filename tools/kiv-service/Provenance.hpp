#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "Model.hpp"
#include "Pdf.hpp"
#include "ProvenanceKeys.hpp"

namespace kiv::service {

/**
 * What the service signs: a confirmed report's manifest (an ES256 JWS over its canonical JSON) with an
 * RFC 3161 time-stamp over it, and the certificate PDF that carries both, signed as a whole.
 *
 * @par Thread Safety
 * All members may be called from any thread; the keys are only read.
 */
class Provenance {
 public:
  /// Loads the service's keys, issuing those that are absent (see `ensureProvenanceKeys`).
  Provenance(const std::filesystem::path& dataDir, const TlsMaterial& tls);

  /// Signs and time-stamps the manifest of `report`, confirmed now, with those of `statements` that still
  /// name one of its files with the file's digest.
  ManifestRecord issue(const ReportRecord& report, const std::vector<StatementRecord>& statements) const;

  /// The certificate PDF of a report with a manifest, drawn from the manifest and signed.
  std::string certificate(const ManifestRecord& manifest, Language language) const;

  /// The signing certificate, the TSA certificate and the CA certificate, as PEM.
  std::string certificateChain() const;

 private:
  ProvenanceKeys keys_;
};

}  // namespace kiv::service

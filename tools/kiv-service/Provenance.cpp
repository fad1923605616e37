#include "Provenance.hpp"

#include <array>
#include <ctime>
#include <map>

#include "Crypto.hpp"
#include "Jws.hpp"
#include "PdfSignature.hpp"
#include "Timestamp.hpp"

namespace kiv::service {
namespace {

using nlohmann::json;

std::string wireTimeNow() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::array<char, 32> text{};
  static_cast<void>(std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc));
  return text.data();
}

// The statement that holds for a file: it names the file's current digest. A file replaced after it was
// stated loses its statement rather than carry one that no longer fits.
const StatementRecord* statementFor(const FileRecord& file, const std::vector<StatementRecord>& statements) {
  for (const StatementRecord& statement : statements) {
    if (statement.fileName == file.fileName && file.hash == statement.sha256) return &statement;
  }
  return nullptr;
}

json manifestPayload(const ReportRecord& report, const std::vector<StatementRecord>& statements,
                     const ProvenanceKeys& keys) {
  json files = json::array();
  std::map<std::string, std::string> signers;  // key id -> public key, sorted by key id
  for (const FileRecord& file : report.files) {
    const StatementRecord* statement = statementFor(file, statements);
    files.push_back({{"file_name", file.fileName},
                     {"sha256", file.hash.value_or("")},
                     {"statement", statement ? json(statement->jws) : json(nullptr)}});
    if (statement) signers.emplace(statement->key.keyId, statement->key.publicKey);
  }
  json deviceKeys = json::array();
  for (const auto& [keyId, publicKey] : signers)
    deviceKeys.push_back({{"key_id", keyId}, {"public_key", publicKey}});
  return {{"confirmed_at", wireTimeNow()},
          {"created_at", report.createdAt},
          {"device_keys", std::move(deviceKeys)},
          {"files", std::move(files)},
          {"issuer", {{"key_id", keys.fingerprint}, {"name", keys.issuerName}}},
          {"name", report.name},
          {"slug", report.slug},
          {"version", 1}};
}

// Everything the page shows comes from the signed manifest, so the text cannot say more than it does.
ProvenancePage pageOf(const json& payload, const ManifestRecord& manifest) {
  ProvenancePage page{payload["name"],
                      payload["slug"],
                      payload["created_at"],
                      payload["confirmed_at"],
                      manifest.issuedAt,
                      payload["issuer"]["name"],
                      payload["issuer"]["key_id"],
                      "kiv-manifest:" + payload["slug"].get<std::string>() + ":" + sha256Hex(manifest.jws),
                      {}};
  for (const json& file : payload["files"]) {
    ProvenancePage::File entry{file["file_name"], file["sha256"], std::nullopt, std::nullopt};
    if (file["statement"].is_string()) {
      const json statement = parseJws(file["statement"].get<std::string>(), "EdDSA").payload;
      entry.deviceKeyId = statement["key_id"];
      entry.dateTaken = statement["date_taken"];
    }
    page.files.push_back(std::move(entry));
  }
  return page;
}

}  // namespace

Provenance::Provenance(const std::filesystem::path& dataDir, const TlsMaterial& tls)
    : keys_(ensureProvenanceKeys(dataDir, tls)) {}

ManifestRecord Provenance::issue(const ReportRecord& report,
                                 const std::vector<StatementRecord>& statements) const {
  const json header = {{"alg", "ES256"}, {"kid", keys_.fingerprint}, {"typ", "kiv-manifest"}};
  std::string jws = signEs256(keys_.signingKey.get(), header, manifestPayload(report, statements, keys_));
  std::string stamp = timeStamp(jws, keys_.tsa.get(), keys_.tsaKey.get());
  std::string issuedAt = timeStampTime(stamp);
  return {std::move(jws), std::move(stamp), std::move(issuedAt)};
}

std::string Provenance::certificate(const ManifestRecord& manifest, Language language) const {
  const Jws signedManifest = parseJws(manifest.jws, "ES256");
  return signPdf(
      renderProvenanceCertificate(pageOf(signedManifest.payload, manifest), language),
      {{"manifest.json", "application/json", "The manifest: the report as certified",
        signedManifest.payloadText},
       {"manifest.jws", "application/jose", "The manifest signed by the issuer (ES256)", manifest.jws},
       {"timestamp.tsr", "application/timestamp-reply",
        "RFC 3161 time-stamp of manifest.jws by the issuer's time-stamp authority", manifest.timestamp}},
      keys_.signing.get(), keys_.signingKey.get());
}

std::string Provenance::certificateChain() const {
  return toPem(keys_.signing.get()) + toPem(keys_.tsa.get()) + toPem(keys_.ca.get());
}

}  // namespace kiv::service

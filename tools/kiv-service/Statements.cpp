#include "Statements.hpp"

#include <algorithm>
#include <array>

#include "Crypto.hpp"
#include "Jws.hpp"
#include "Wire.hpp"

namespace kiv::service {
namespace {

using nlohmann::json;

constexpr std::size_t kEd25519KeyBytes = 32;
constexpr std::array<const char*, 5> kPayloadFields{"date_taken", "file_name", "key_id", "sha256",
                                                    "signed_at"};

std::string where(std::size_t index) { return "statements[" + std::to_string(index) + "]: "; }

// The payload holds exactly its five texts, each in its form.
void checkPayload(const json& payload, const std::string& at) {
  const bool texts = payload.size() == kPayloadFields.size() &&
                     std::all_of(kPayloadFields.begin(), kPayloadFields.end(), [&](const char* key) {
                       return payload.contains(key) && payload[key].is_string();
                     });
  if (!texts) {
    throw BadRequest(at +
                     "the payload must hold exactly the texts date_taken, file_name, key_id, sha256 and "
                     "signed_at.");
  }
  for (const char* key : {"key_id", "sha256"}) {
    if (!isSha256Hex(payload[key]))
      throw BadRequest(at + "'" + key + "' must be 64 lower-case hexadecimal digits.");
  }
  for (const char* key : {"date_taken", "signed_at"}) {
    if (!isWireTime(payload[key]))
      throw BadRequest(at + "'" + key + "' must be a UTC time like 2024-05-01T12:00:00Z.");
  }
}

void checkHeader(const json& header, const json& payload, const std::string& at) {
  const auto type = header.find("typ");
  if (type == header.end() || *type != "kiv-file-statement") {
    throw BadRequest(at + "the header's \"typ\" must be \"kiv-file-statement\".");
  }
  if (!header.contains("kid") || header["kid"] != payload["key_id"]) {
    throw BadRequest(at + "the header's \"kid\" must be the payload's 'key_id'.");
  }
}

StatementRecord verifyStatement(const std::string& text, const std::string& at,
                                const KeyLookup& registeredKey) {
  Jws jws;
  try {
    jws = parseJws(text, "EdDSA");
  } catch (const JwsError& error) {
    throw BadRequest(at + error.what() + ".");
  }
  checkPayload(jws.payload, at);
  checkHeader(jws.header, jws.payload, at);
  const std::string keyId = jws.payload["key_id"];
  const std::optional<DeviceKey> key = registeredKey(keyId);
  if (!key) throw BadRequest(at + "the device key " + keyId + " is not registered for this app token.", 422);
  if (!verifyEd25519(fromBase64url(key->publicKey).value_or(""), jws.signingInput, jws.signature)) {
    throw BadRequest(at + "the signature does not verify under the device key " + keyId + ".", 422);
  }
  return {jws.payload["file_name"], jws.payload["sha256"], *key, text};
}

}  // namespace

DeviceKey deviceKeyFrom(const std::string& publicKey) {
  const std::optional<std::string> raw = fromBase64url(publicKey);
  if (!raw || raw->size() != kEd25519KeyBytes) {
    throw BadRequest("'public_key' must be the base64url text of the 32 bytes of an Ed25519 public key.");
  }
  return {sha256Hex(*raw), publicKey};
}

std::vector<StatementRecord> verifyStatements(const std::vector<std::string>& texts,
                                              const KeyLookup& registeredKey) {
  std::vector<StatementRecord> statements;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    statements.push_back(verifyStatement(texts[i], where(i), registeredKey));
  }
  return statements;
}

void checkStatementsFit(const ReportRecord& report, bool manifestIssued,
                        const std::vector<StatementRecord>& statements) {
  if (manifestIssued) {
    throw BadRequest("The report's manifest is already issued; its statements can no longer change.", 409);
  }
  for (std::size_t i = 0; i < statements.size(); ++i) {
    const StatementRecord& statement = statements[i];
    const auto file = std::find_if(report.files.begin(), report.files.end(),
                                   [&](const FileRecord& f) { return f.fileName == statement.fileName; });
    if (file == report.files.end()) {
      throw BadRequest(where(i) + "the report has no file named \"" + statement.fileName + "\".", 404);
    }
    if (file->hash != statement.sha256) {
      throw BadRequest(where(i) + "'sha256' is not the report's digest of \"" + statement.fileName + "\".",
                       422);
    }
  }
}

}  // namespace kiv::service

#include "KivSDK/Provenance/FileStatement.hpp"

#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "KivSDK/Provenance/detail/JWS.hpp"
#include "KivSDK/Provenance/detail/OpenSSL.hpp"
#include "ZuDate/ZuDate.hpp"

namespace kiv {
namespace {

std::string serviceDate(zu::Date date) { return zu::stringWithAPIFormat(date, zu::DateFormatterStyle::api); }

zu::Error malformed(const std::string& message) {
  return ProvenanceError::make(ProvenanceError::malformed, "not a file statement: " + message);
}

// The payload's text under `key`, which must be there and must be text.
bool readText(const zu::AnyCodable::Dictionary& payload, std::string_view key, std::string& out) {
  const zu::AnyCodable* value = payload.find(key);
  const std::string* text = value ? value->stringValue() : nullptr;
  if (text) out = *text;
  return text != nullptr;
}

zu::Result<FileStatement> statementOf(const detail::CompactJWS& jws) {
  if (jws.headerText("typ") != FileStatement::type)
    return malformed("its \"typ\" is not \"kiv-file-statement\"");
  FileStatement statement;
  const bool complete = jws.payload.size() == 5 && readText(jws.payload, "file_name", statement.fileName) &&
                        readText(jws.payload, "sha256", statement.sha256) &&
                        readText(jws.payload, "date_taken", statement.dateTaken) &&
                        readText(jws.payload, "signed_at", statement.signedAt) &&
                        readText(jws.payload, "key_id", statement.keyId);
  if (!complete)
    return malformed("its payload is not exactly file_name, sha256, date_taken, signed_at and key_id texts");
  if (jws.headerText("kid") != statement.keyId) return malformed("its \"kid\" is not its key_id");
  return statement;
}

}  // namespace

zu::Result<FileStatement> FileStatement::about(const KivFile& file, std::string keyId, zu::Date signedAt) {
  if (!file.hash) {
    return ProvenanceError::make(
        ProvenanceError::unstatableFile,
        wireName(file) + " has no digest yet: calculate it before signing a statement");
  }
  return FileStatement{wireName(file), *file.hash, serviceDate(file.dateTaken), serviceDate(signedAt),
                       std::move(keyId)};
}

std::string FileStatement::wireName(const KivFile& file) { return file.name + "." + file.ext; }

zu::AnyCodable::Dictionary FileStatement::payload() const {
  return {{"date_taken", dateTaken},
          {"file_name", fileName},
          {"key_id", keyId},
          {"sha256", sha256},
          {"signed_at", signedAt}};
}

zu::Result<std::string> FileStatement::sign(const DeviceSigner& signer) const {
  if (signer.keyId() != keyId) {
    return ProvenanceError::make(
        ProvenanceError::deviceKeyUnavailable,
        "The statement names key " + keyId + ", not the signer's key " + signer.keyId());
  }
  const zu::AnyCodable::Dictionary header{{"alg", "EdDSA"}, {"kid", keyId}, {"typ", std::string(type)}};
  return detail::writeJWS(header, payload(), [&](std::string_view input) {
    return signer.sign(std::span(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()));
  });
}

zu::Result<FileStatement> FileStatement::read(std::string_view jws) {
  const auto parsed = detail::readJWS(jws, "EdDSA");
  if (!parsed) return parsed.error();
  return statementOf(*parsed);
}

zu::Result<FileStatement> FileStatement::verify(std::string_view jws,
                                                std::span<const std::uint8_t> publicKey) {
  const auto parsed = detail::readJWS(jws, "EdDSA");
  if (!parsed) return parsed.error();
  auto statement = statementOf(*parsed);
  if (!statement) return statement;
  if (statement->keyId != detail::keyIdOf(publicKey)) {
    return ProvenanceError::make(ProvenanceError::signatureInvalid, "the statement is signed by another key");
  }
  const detail::PKey key = detail::ed25519PublicKey(publicKey);
  if (!detail::verifyEd25519(key.get(), parsed->signingInput, parsed->signature)) {
    return ProvenanceError::make(ProvenanceError::signatureInvalid,
                                 "the statement's signature does not verify");
  }
  return statement;
}

}  // namespace kiv

#include "KivSDK/Provenance/detail/JWS.hpp"

#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "KivSDK/Provenance/detail/Base64Url.hpp"
#include "KivSDK/Provenance/detail/CanonicalJSON.hpp"

namespace kiv::detail {
namespace {

zu::Error malformed(const std::string& message) {
  return ProvenanceError::make(ProvenanceError::malformed, "not a valid JWS: " + message);
}

zu::Result<zu::Data> decodedPart(std::string_view part, std::string_view name) {
  auto bytes = base64UrlDecode(part);
  if (!bytes) return malformed("its " + std::string(name) + " is not unpadded base64url");
  return std::move(*bytes);
}

zu::Result<zu::AnyCodable::Dictionary> objectPart(std::string_view part, std::string_view name,
                                                  std::string* textOut = nullptr) {
  auto bytes = decodedPart(part, name);
  if (!bytes) return bytes.error();
  std::string text(bytes->begin(), bytes->end());
  auto object = readCanonicalObject(text);
  if (!object) return malformed("its " + std::string(name) + " is " + object.error().localizedDescription());
  if (textOut) *textOut = std::move(text);
  return std::move(*object);
}

}  // namespace

std::string CompactJWS::headerText(std::string_view key) const {
  const zu::AnyCodable* value = header.find(key);
  const std::string* text = value ? value->stringValue() : nullptr;
  return text ? *text : std::string();
}

zu::Result<CompactJWS> readJWS(std::string_view text, std::string_view algorithm) {
  const auto firstDot = text.find('.');
  const auto secondDot = firstDot == std::string_view::npos ? firstDot : text.find('.', firstDot + 1);
  if (secondDot == std::string_view::npos || text.find('.', secondDot + 1) != std::string_view::npos) {
    return malformed("it does not have three parts");
  }
  CompactJWS jws;
  auto header = objectPart(text.substr(0, firstDot), "header");
  if (!header) return header.error();
  jws.header = std::move(*header);
  if (jws.headerText("alg") != algorithm)
    return malformed("its \"alg\" is not \"" + std::string(algorithm) + "\"");
  if (jws.header.contains("crit"))
    return malformed("it has a \"crit\" header, which no reader here understands");
  auto payload = objectPart(text.substr(firstDot + 1, secondDot - firstDot - 1), "payload", &jws.payloadText);
  if (!payload) return payload.error();
  jws.payload = std::move(*payload);
  auto signature = decodedPart(text.substr(secondDot + 1), "signature");
  if (!signature) return signature.error();
  jws.signature = std::move(*signature);
  jws.signingInput = std::string(text.substr(0, secondDot));
  return jws;
}

zu::Result<std::string> writeJWS(const zu::AnyCodable::Dictionary& header,
                                 const zu::AnyCodable::Dictionary& payload, const JWSSigner& sign) {
  const auto headerText = canonicalJSON(zu::AnyCodable(header));
  if (!headerText) return headerText.error();
  const auto payloadText = canonicalJSON(zu::AnyCodable(payload));
  if (!payloadText) return payloadText.error();
  std::string jws = base64UrlEncode(*headerText) + "." + base64UrlEncode(*payloadText);
  const auto signature = sign(jws);
  if (!signature) return signature.error();
  return jws + "." + base64UrlEncode(*signature);
}

}  // namespace kiv::detail

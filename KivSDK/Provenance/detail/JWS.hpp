#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

// The compact serialization of a JSON Web Signature (RFC 7515) as the provenance documents use it: header and
// payload canonical JSON objects, each part base64url without padding.
namespace kiv::detail {

/// A JWS read from its compact form; its signature is not verified yet.
struct CompactJWS {
  zu::AnyCodable::Dictionary header;
  zu::AnyCodable::Dictionary payload;
  /// The payload's canonical JSON text, as signed.
  std::string payloadText;
  zu::Data signature;
  /// The first two parts and the dot between them: the bytes the signature covers.
  std::string signingInput;

  /// The header's text under `key`; empty when it is missing or not text.
  std::string headerText(std::string_view key) const;
};

/**
 * Reads a compact JWS whose "alg" must be `algorithm`. Refused: other than three parts, padding or characters
 * outside base64url, a header or payload that is not a canonical JSON object, another "alg", any "crit".
 */
zu::Result<CompactJWS> readJWS(std::string_view text, std::string_view algorithm);

/// Signs the input bytes; answers the signature or why not.
using JWSSigner = std::function<zu::Result<zu::Data>(std::string_view signingInput)>;

/// The compact JWS of `header` and `payload` (both written as canonical JSON) signed by `sign`.
zu::Result<std::string> writeJWS(const zu::AnyCodable::Dictionary& header,
                                 const zu::AnyCodable::Dictionary& payload, const JWSSigner& sign);

}  // namespace kiv::detail

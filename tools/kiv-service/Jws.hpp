#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <openssl/evp.h>
#include <nlohmann/json.hpp>

namespace kiv::service {

/// Bytes as base64url text without padding.
std::string base64url(std::string_view bytes);
/// The bytes of base64url text; nothing when it has padding, another character, or stray trailing bits.
std::optional<std::string> fromBase64url(std::string_view text);

/**
 * The canonical text of a JSON value made of objects, arrays, strings, non-negative integers and null: keys
 * sorted by their bytes, no whitespace, only the escapes JSON requires, other characters as UTF-8. This is
 * what nlohmann's compact `dump` writes for that subset (its objects are ordered maps), so it is the one
 * writer of every signed text.
 */
std::string canonicalJson(const nlohmann::json& value);

/// Why a JWS is refused, in words that name the part at fault.
struct JwsError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A compact JWS taken apart. Header and payload are JSON objects whose received bytes were canonical.
/// (nlohmann's destructor may allocate while it takes a deep document apart; running out of memory there
/// ends the program, as it would anywhere else.)
struct Jws {  // NOLINT(bugprone-exception-escape)
  nlohmann::json header;
  nlohmann::json payload;
  std::string payloadText;   ///< the payload's bytes as signed
  std::string signingInput;  ///< BASE64URL(header) "." BASE64URL(payload)
  std::string signature;
};

/**
 * Reads a compact JWS whose header names `algorithm`: three base64url parts, a canonical JSON object in the
 * header and in the payload, no "crit" header. The signature is not checked here. Throws JwsError.
 */
Jws parseJws(std::string_view text, std::string_view algorithm);

/// Whether `signature` is the Ed25519 signature of `message` under the 32-byte raw public key.
bool verifyEd25519(std::string_view publicKey, std::string_view message, std::string_view signature);

/// A compact JWS of `payload` signed with ES256 by the P-256 `key`: the signature in its R || S form.
std::string signEs256(EVP_PKEY* key, const nlohmann::json& header, const nlohmann::json& payload);

}  // namespace kiv::service

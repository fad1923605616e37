#include "Jws.hpp"

#include <array>
#include <vector>

#include <openssl/bn.h>
#include <openssl/ec.h>

#include "Handles.hpp"
#include "Wire.hpp"

namespace kiv::service {
namespace {

using nlohmann::json;

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::size_t kEs256Half = 32;  // bytes of R and of S for P-256

int sextet(char c) {
  const std::size_t found = kAlphabet.find(c);
  return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

// A part of a JWS decoded and parsed as a canonical JSON object; `name` says which part in an error.
json canonicalObject(std::string_view part, const char* name, std::string* bytes = nullptr) {
  const std::optional<std::string> decoded = fromBase64url(part);
  if (!decoded) throw JwsError(std::string("the JWS ") + name + " is not base64url text without padding");
  json value;
  try {
    value = parseJson(*decoded);  // bounded in depth: the canonical form is written back recursively
  } catch (const BadRequest&) {
    throw JwsError(std::string("the JWS ") + name + " nests too deeply");
  }
  if (value.is_discarded() || !value.is_object()) {
    throw JwsError(std::string("the JWS ") + name + " is not a JSON object");
  }
  if (canonicalJson(value) != *decoded) {
    throw JwsError(std::string("the JWS ") + name + " is not in canonical JSON form");
  }
  if (bytes) *bytes = *decoded;
  return value;
}

std::vector<std::string_view> splitParts(std::string_view text) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (std::size_t dot = text.find('.'); dot != std::string_view::npos; dot = text.find('.', start)) {
    parts.push_back(text.substr(start, dot - start));
    start = dot + 1;
  }
  parts.push_back(text.substr(start));
  return parts;
}

// OpenSSL signs ECDSA as a DER SEQUENCE of two INTEGERs; JWS wants both as fixed-width big-endian bytes.
std::string derToRs(const std::string& der) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
  Handle<ECDSA_SIG, ECDSA_SIG_free> signature(d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(der.size())));
  if (!signature) throw std::runtime_error("ES256: the signature could not be read");
  std::string rs(2 * kEs256Half, '\0');
  auto* out = reinterpret_cast<unsigned char*>(rs.data());
  if (BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), out, kEs256Half) != kEs256Half ||
      BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), out + kEs256Half, kEs256Half) != kEs256Half) {
    throw std::runtime_error("ES256: the signing key is not a P-256 key");
  }
  return rs;
}

}  // namespace

std::string base64url(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() * 4 + 2) / 3);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (unsigned char byte : bytes) {
    buffer = (buffer << 8) | byte;
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      text += kAlphabet[(buffer >> bits) & 0x3f];
    }
  }
  if (bits > 0) text += kAlphabet[(buffer << (6 - bits)) & 0x3f];
  return text;
}

std::optional<std::string> fromBase64url(std::string_view text) {
  if (text.size() % 4 == 1) return std::nullopt;  // no length of bytes encodes to this many characters
  std::string bytes;
  bytes.reserve(text.size() * 3 / 4);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    const int value = sextet(c);
    if (value < 0) return std::nullopt;
    buffer = (buffer << 6) | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes += static_cast<char>((buffer >> bits) & 0xff);
    }
  }
  // The leftover bits of the last character must be zero, so that each byte string has one text.
  if ((buffer & ((1u << bits) - 1)) != 0) return std::nullopt;
  return bytes;
}

std::string canonicalJson(const json& value) { return value.dump(); }

Jws parseJws(std::string_view text, std::string_view algorithm) {
  const std::vector<std::string_view> parts = splitParts(text);
  if (parts.size() != 3) throw JwsError("a compact JWS has three parts separated by dots");
  Jws jws;
  jws.header = canonicalObject(parts[0], "header");
  jws.payload = canonicalObject(parts[1], "payload", &jws.payloadText);
  const std::optional<std::string> signature = fromBase64url(parts[2]);
  if (!signature || signature->empty()) throw JwsError("the JWS signature is not base64url text");
  const auto alg = jws.header.find("alg");
  if (alg == jws.header.end() || *alg != algorithm) {
    throw JwsError("the JWS header's \"alg\" must be \"" + std::string(algorithm) + "\"");
  }
  if (jws.header.contains("crit")) throw JwsError("the JWS header has a \"crit\" member");
  jws.signingInput = std::string(parts[0]) + "." + std::string(parts[1]);
  jws.signature = *signature;
  return jws;
}

bool verifyEd25519(std::string_view publicKey, std::string_view message, std::string_view signature) {
  Handle<EVP_PKEY, EVP_PKEY_free> key(EVP_PKEY_new_raw_public_key(
      EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(publicKey.data()), publicKey.size()));
  Handle<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
  return key && context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
         EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                          signature.size(), reinterpret_cast<const unsigned char*>(message.data()),
                          message.size()) == 1;
}

std::string signEs256(EVP_PKEY* key, const json& header, const json& payload) {
  const std::string input = base64url(canonicalJson(header)) + "." + base64url(canonicalJson(payload));
  Handle<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
  std::size_t size = 0;
  const auto* message = reinterpret_cast<const unsigned char*>(input.data());
  if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1 ||
      EVP_DigestSign(context.get(), nullptr, &size, message, input.size()) != 1) {
    throw std::runtime_error("ES256: signing could not start");
  }
  std::string der(size, '\0');
  if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(der.data()), &size, message,
                     input.size()) != 1) {
    throw std::runtime_error("ES256: signing failed");
  }
  der.resize(size);
  return input + "." + base64url(derToRs(der));
}

}  // namespace kiv::service

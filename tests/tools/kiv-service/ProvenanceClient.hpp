#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>
#include <nlohmann/json.hpp>

namespace kiv::service::test {

std::string base64url(std::string_view bytes);
/// The bytes of base64url text without padding; empty when it is not such text.
std::string fromBase64url(std::string_view text);

/// An Ed25519 key of a test device, signing file statements the way the SDK does.
class TestDevice {
 public:
  TestDevice();

  /// The 32 raw public key bytes as base64url, and their hex SHA-256.
  const std::string& publicKey() const { return publicKey_; }
  const std::string& keyId() const { return keyId_; }

  /// {"alg":"EdDSA","kid":...,"typ":"kiv-file-statement"} and the payload for a file and its digest.
  nlohmann::json header() const;
  nlohmann::json payload(const std::string& fileName, const std::string& sha256) const;
  /// A compact JWS of the canonical header and payload, signed by this device.
  std::string sign(const nlohmann::json& header, const nlohmann::json& payload) const;
  /// A compact JWS of these exact header and payload texts, signed by this device.
  std::string signTexts(const std::string& header, const std::string& payload) const;
  std::string statement(const std::string& fileName, const std::string& sha256) const {
    return sign(header(), payload(fileName, sha256));
  }

 private:
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
  std::string publicKey_;
  std::string keyId_;
};

/// Whether a compact JWS carries a valid ES256 signature (R || S) by the certificate's key.
bool verifiesEs256(const std::string& jws, const std::string& certificatePem);

/// The SHA-256 of the DER SubjectPublicKeyInfo of a PEM certificate, in hex.
std::string publicKeyFingerprint(const std::string& certificatePem);

/// The PEM certificates of a chain, in order.
std::vector<std::string> splitPem(const std::string& chain);
/// A certificate's subject in OpenSSL's one-line form, "O = kiv-service, CN = ...".
std::string subjectOf(const std::string& certificatePem);

/// What a command printed, and its exit status.
struct CommandResult {
  int status = -1;
  std::string output;
};
/// Runs a shell command; its standard error goes into the output too unless `withErrors` is false.
CommandResult runCommand(const std::string& command, bool withErrors = true);

void writeFile(const std::filesystem::path& path, const std::string& bytes);
std::string readFile(const std::filesystem::path& path);

}  // namespace kiv::service::test

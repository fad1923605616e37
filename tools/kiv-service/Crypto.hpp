#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <openssl/evp.h>

#include "Handles.hpp"

namespace kiv::service {

/// Incremental SHA-256 whose result is lower-case hexadecimal text, the form digests take on the wire.
class Sha256 {
 public:
  Sha256();
  void update(const void* data, std::size_t size);
  /// The digest of everything passed to `update`; call once.
  std::string finishHex();

 private:
  Handle<EVP_MD_CTX, EVP_MD_CTX_free> context_;
};

/// The hexadecimal SHA-256 of `bytes`.
std::string sha256Hex(std::string_view bytes);

/// The hexadecimal SHA-256 of a file, read in blocks; empty when the file cannot be read.
std::string sha256OfFile(const std::filesystem::path& path);

/// The HMAC-SHA-256 of `text` under `key`, as 32 raw bytes.
std::string hmacSha256(std::string_view key, std::string_view text);

/// The hexadecimal HMAC-SHA-256 of `text` under `key`.
std::string hmacSha256Hex(std::string_view key, std::string_view text);

/// Compares two texts in time that does not depend on where they differ.
bool constantTimeEquals(std::string_view a, std::string_view b);

/// `size` bytes from the system's secure random source.
std::string randomBytes(std::size_t size);

/// A fresh identifier of 12 lower-case letters and digits, used as report and file slug.
std::string randomSlug();

/// Bytes as lower-case hexadecimal text.
std::string toHex(std::string_view bytes);

}  // namespace kiv::service

#include "Crypto.hpp"

#include <array>
#include <fstream>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace kiv::service {

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 is not available");
  }
}

void Sha256::update(const void* data, std::size_t size) { EVP_DigestUpdate(context_.get(), data, size); }

std::string Sha256::finishHex() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_DigestFinal_ex(context_.get(), digest.data(), &length);
  return toHex({reinterpret_cast<const char*>(digest.data()), length});
}

std::string sha256Hex(std::string_view bytes) {
  Sha256 digest;
  digest.update(bytes.data(), bytes.size());
  return digest.finishHex();
}

std::string sha256OfFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  Sha256 digest;
  std::string block(1 << 20, '\0');
  while (in) {
    in.read(block.data(), static_cast<std::streamsize>(block.size()));
    digest.update(block.data(), static_cast<std::size_t>(in.gcount()));
  }
  return in.bad() ? std::string() : digest.finishHex();
}

std::string hmacSha256(std::string_view key, std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> mac{};
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(), mac.data(), &length);
  return {reinterpret_cast<const char*>(mac.data()), length};
}

std::string hmacSha256Hex(std::string_view key, std::string_view text) {
  return toHex(hmacSha256(key, text));
}

bool constantTimeEquals(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string randomBytes(std::size_t size) {
  std::string bytes(size, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(size)) != 1) {
    throw std::runtime_error("the random source failed");
  }
  return bytes;
}

std::string randomSlug() {
  static constexpr std::string_view alphabet = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::string slug;
  // 252 is the largest multiple of 36 below 256: rejecting the rest keeps every character equally likely.
  while (slug.size() < 12) {
    for (unsigned char byte : randomBytes(16)) {
      if (byte < 252 && slug.size() < 12) slug += alphabet[byte % alphabet.size()];
    }
  }
  return slug;
}

std::string toHex(std::string_view bytes) {
  static constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (unsigned char byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 0x0f];
  }
  return text;
}

}  // namespace kiv::service

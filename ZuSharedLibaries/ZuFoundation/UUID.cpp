#include "ZuFoundation/UUID.hpp"

#include <openssl/rand.h>

#include <string_view>

#include "ZuFoundation/FatalError.hpp"

namespace zu {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool isHyphenPosition(std::size_t index) { return index == 8 || index == 13 || index == 18 || index == 23; }

std::optional<std::uint8_t> hexValue(char c) {
  if (c >= '0' && c <= '9') return static_cast<std::uint8_t>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<std::uint8_t>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<std::uint8_t>(c - 'A' + 10);
  return std::nullopt;
}

}  // namespace

UUID::UUID() {
  if (RAND_bytes(bytes_.data(), static_cast<int>(bytes_.size())) != 1) {
    fatalError("The system's random source failed");
  }
  bytes_[6] = static_cast<std::uint8_t>((bytes_[6] & 0x0F) | 0x40);  // version 4
  bytes_[8] = static_cast<std::uint8_t>((bytes_[8] & 0x3F) | 0x80);  // RFC 4122 variant
}

std::optional<UUID> UUID::fromString(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Bytes bytes{};
  std::size_t nibble = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isHyphenPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const auto value = hexValue(text[i]);
    if (!value) return std::nullopt;
    bytes[nibble / 2] = static_cast<std::uint8_t>(bytes[nibble / 2] << 4 | *value);
    ++nibble;
  }
  return UUID(bytes);
}

std::string UUID::uuidString() const {
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHexDigits[bytes_[i] >> 4];
    text += kHexDigits[bytes_[i] & 0x0F];
  }
  return text;
}

}  // namespace zu

std::size_t std::hash<zu::UUID>::operator()(const zu::UUID& uuid) const noexcept {
  std::size_t value = 0;
  for (auto byte : uuid.bytes()) value = value * 131 + byte;
  return value;
}

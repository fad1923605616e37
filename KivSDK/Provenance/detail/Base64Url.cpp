#include "KivSDK/Provenance/detail/Base64Url.hpp"

#include <array>

namespace kiv::detail {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::uint8_t kNotInAlphabet = 0xff;

constexpr std::array<std::uint8_t, 256> decodingTable() {
  std::array<std::uint8_t, 256> table{};
  table.fill(kNotInAlphabet);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return table;
}

constexpr std::array<std::uint8_t, 256> kDecoding = decodingTable();

}  // namespace

std::string base64UrlEncode(std::span<const std::uint8_t> bytes) {
  std::string text;
  text.reserve((bytes.size() * 4 + 2) / 3);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group =
        (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) text.push_back(kAlphabet[(group >> shift) & 0x3f]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 0) return text;
  std::uint32_t group = std::uint32_t{bytes[i]} << 16;
  if (rest == 2) group |= std::uint32_t{bytes[i + 1]} << 8;
  text.push_back(kAlphabet[(group >> 18) & 0x3f]);
  text.push_back(kAlphabet[(group >> 12) & 0x3f]);
  if (rest == 2) text.push_back(kAlphabet[(group >> 6) & 0x3f]);
  return text;
}

std::string base64UrlEncode(std::string_view text) {
  return base64UrlEncode(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

std::optional<zu::Data> base64UrlDecode(std::string_view text) {
  // A group of one character encodes no whole byte.
  if (text.size() % 4 == 1) return std::nullopt;
  zu::Data bytes;
  bytes.reserve(text.size() * 3 / 4);
  std::uint32_t bits = 0;
  int bitCount = 0;
  for (const char c : text) {
    const std::uint8_t value = kDecoding[static_cast<unsigned char>(c)];
    if (value == kNotInAlphabet) return std::nullopt;
    bits = (bits << 6) | value;
    bitCount += 6;
    if (bitCount >= 8) {
      bitCount -= 8;
      bytes.push_back(static_cast<std::uint8_t>(bits >> bitCount));
      bits &= (1u << bitCount) - 1;
    }
  }
  // The bits left over pad the last character; an encoder leaves them zero, so other texts for the same
  // bytes are refused and each byte string has one encoding.
  if (bits != 0) return std::nullopt;
  return bytes;
}

}  // namespace kiv::detail

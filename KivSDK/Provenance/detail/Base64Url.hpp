#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "ZuFoundation/Data.hpp"

namespace kiv::detail {

/// Bytes in the URL-safe base64 alphabet ("-" and "_"), without padding.
std::string base64UrlEncode(std::span<const std::uint8_t> bytes);
std::string base64UrlEncode(std::string_view text);
/// The bytes of unpadded URL-safe base64 text; nothing for any other character, padding included, or for a
/// length or final character that no encoding produces.
std::optional<zu::Data> base64UrlDecode(std::string_view text);

}  // namespace kiv::detail

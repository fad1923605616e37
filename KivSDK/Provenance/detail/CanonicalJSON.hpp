#pragma once

#include <string>
#include <string_view>

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/Result.hpp"

// The canonical JSON of signed documents: objects (keys sorted by their UTF-8 bytes), arrays, UTF-8 strings,
// integers from 0 to 2^53 - 1 and null; no whitespace; strings escape only what JSON requires (quote,
// backslash, control characters: \b \t \n \f \r by name, the others as \u00xx). One value, one text.
namespace kiv::detail {

/// The canonical text of `value`; fails (`ProvenanceError::malformed`) for a value outside the subset.
zu::Result<std::string> canonicalJSON(const zu::AnyCodable& value);

/// Whether `text` is well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing past U+10FFFF.
bool isUTF8(std::string_view text);

/// The object that `text` holds; fails unless `text` is JSON, an object, and exactly its own canonical text.
zu::Result<zu::AnyCodable::Dictionary> readCanonicalObject(std::string_view text);

}  // namespace kiv::detail

#pragma once

#include <cstdint>
#include <optional>

#include "AnyCodable/MetadataFlattening.hpp"
#include "ZuFoundation/Date.hpp"

// What the two records share: their whole-second ordering, their metadata in flat form, the merge rule.
namespace kiv::detail {

/// Seconds since the reference date, truncated toward zero; the program stops when they are not finite or
/// do not fit a signed 64-bit integer.
std::int64_t wholeSeconds(zu::Date date);

/// The nested map rebuilt from the flat form.
std::optional<zu::AnyCodable::Dictionary> nestedMetadata(const std::optional<zu::FlatMetadata>& flat);
/// The flat form of a nested map.
std::optional<zu::FlatMetadata> flatMetadata(const std::optional<zu::AnyCodable::Dictionary>& nested);

/// The merge rule for optional fields: the newer value when there is one, else the older.
template <class T>
std::optional<T> newerOrOlder(const std::optional<T>& newer, const std::optional<T>& older) {
  return newer ? newer : older;
}

}  // namespace kiv::detail

#pragma once

#include <optional>

namespace zu {

/// The first and last raw values of an enumeration whose raw values are contiguous integers. Each such
/// enumeration specialises it beside its declaration.
template <class Enum>
struct RawValueRange;

/// The case with raw value `rawValue`; nothing outside the enumeration's range (like `Enum(rawValue:)`).
template <class Enum>
constexpr std::optional<Enum> fromRawValue(int rawValue) {
  if (rawValue < RawValueRange<Enum>::first || rawValue > RawValueRange<Enum>::last) return std::nullopt;
  return static_cast<Enum>(rawValue);
}

/// The raw value of a case.
template <class Enum>
constexpr int rawValue(Enum value) {
  return static_cast<int>(value);
}

}  // namespace zu

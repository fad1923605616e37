#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zu {

/// A universally unique identifier. New ones are random (version 4); the text form is upper case, like the
/// platform's, e.g. "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
class UUID {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  /// A new random identifier (RFC 4122 version 4, from the system's secure random source).
  UUID();
  constexpr explicit UUID(const Bytes& bytes) : bytes_(bytes) {}

  /// Parses the 36-character hyphenated form in either letter case; nothing for any other text.
  static std::optional<UUID> fromString(std::string_view text);

  /// The upper-case 36-character hyphenated form.
  std::string uuidString() const;
  constexpr const Bytes& bytes() const { return bytes_; }

  friend constexpr bool operator==(const UUID&, const UUID&) = default;
  friend constexpr auto operator<=>(const UUID&, const UUID&) = default;

 private:
  Bytes bytes_{};
};

}  // namespace zu

// UUIDs key unordered containers. Left out of the API reference, where Doxygen cannot place a
// specialisation declared outside its namespace.
/// @cond
template <>
struct std::hash<zu::UUID> {
  std::size_t operator()(const zu::UUID& uuid) const noexcept;
};
/// @endcond

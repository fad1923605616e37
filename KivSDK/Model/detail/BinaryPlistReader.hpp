#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "ZuFoundation/detail/BinaryPlist.hpp"

namespace kiv::detail {

/**
 * Reads a binary property list ("bplist00") where it lies, object by object, without building a tree: the
 * report list is decoded straight from the stored bytes.
 *
 * Any valid document is read: object references of 1 to 8 bytes, offsets of 1 to 8 bytes, integers of 1, 2,
 * 4, 8 or 16 bytes, reals and dates of 4 or 8 bytes, ASCII and UTF-16 texts. Every access is checked against
 * the document's bounds: an object whose reference, offset, marker or count leads outside the object area
 * reads as `Kind::Invalid`, so hostile bytes give wrong kinds, never a read out of bounds. Nothing here
 * recurses; a caller that follows references down (where a container may hold itself) bounds its own depth.
 *
 * @par Thread Safety
 * Read-only: one reader may be used from several threads while its bytes stay alive and unchanged.
 */
class BinaryPlistReader {
 public:
  using Ref = std::uint64_t;
  using Kind = zu::detail::bplist::Kind;

  /// References stored in a container, read on access.
  class Refs {
   public:
    Refs(const std::uint8_t* at, std::uint64_t count, unsigned width)
        : at_(at), count_(count), width_(width) {}
    std::uint64_t size() const { return count_; }
    /// The reference at `index`, which must be below `size()`.
    Ref operator[](std::uint64_t index) const;

   private:
    const std::uint8_t* at_ = nullptr;
    std::uint64_t count_ = 0;
    unsigned width_ = 1;
  };

  /// The keys and values of a dictionary, pairwise.
  struct Dictionary {
    Refs keys;
    Refs values;
  };

  /// A reader over `bytes`, which must outlive it; nothing when the header, the trailer or the offset table
  /// is malformed.
  static std::optional<BinaryPlistReader> open(std::span<const std::uint8_t> bytes);

  Ref root() const { return trailer_.root; }
  Kind kind(Ref ref) const { return object(ref).kind; }

  std::optional<bool> boolean(Ref ref) const;
  /// An integer that fits in 64 signed bits (a 16-byte one only then); an 8-byte one is signed.
  std::optional<std::int64_t> integer(Ref ref) const;
  std::optional<double> real(Ref ref) const;
  /// A date, as seconds since the reference date.
  std::optional<double> date(Ref ref) const;
  /// The UTF-8 text of a string: a view into the document for ASCII, else into `buffer` (unpaired UTF-16
  /// surrogates, and bytes above 0x7F in an ASCII string, become U+FFFD).
  std::optional<std::string_view> text(Ref ref, std::string& buffer) const;
  std::optional<Refs> array(Ref ref) const;
  std::optional<Dictionary> dictionary(Ref ref) const;

 private:
  BinaryPlistReader(std::span<const std::uint8_t> bytes, const zu::detail::bplist::Trailer& trailer)
      : bytes_(bytes), trailer_(trailer) {}

  zu::detail::bplist::Object object(Ref ref) const {
    return zu::detail::bplist::objectOf(bytes_, trailer_, ref);
  }

  std::span<const std::uint8_t> bytes_;
  zu::detail::bplist::Trailer trailer_;
};

}  // namespace kiv::detail

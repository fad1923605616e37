#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "ZuFoundation/Data.hpp"

namespace kiv::detail {

/**
 * Writes a binary property list ("bplist00") object by object, straight into the document: each call adds
 * one object and returns its reference, which later containers take as their elements; `finish` completes
 * the document with the given root. Equal texts are stored once, as the platform's encoder does.
 *
 * Memory stays close to the document's own size: objects are laid out as they come, containers with
 * references of 4 bytes, narrowed in place at the end when fewer objects need fewer; equal texts are found
 * through a table of references into the document. (libplist's own writer finds shared objects through a
 * small fixed hash table, which makes a document of a million objects take minutes; this one is linear.)
 * A document holds fewer than 2^32 objects; the one that would pass throws `std::length_error`, as a full
 * container does.
 *
 * @par Thread Safety
 * One object per thread.
 */
class BinaryPlistWriter {
 public:
  using Ref = std::uint64_t;

  BinaryPlistWriter();

  Ref boolean(bool value);
  Ref integer(std::int64_t value);
  Ref real(double value);
  /// A date, as seconds since the reference date.
  Ref date(double seconds);
  /// UTF-8 text (invalid sequences become U+FFFD); stored as ASCII or UTF-16 like the platform's writer.
  Ref string(std::string_view text);
  Ref array(std::span<const Ref> elements);
  /// A dictionary of `keys[i]` -> `values[i]`; the keys are string references.
  Ref dictionary(std::span<const Ref> keys, std::span<const Ref> values);

  /// The document with `root` as its top object; the writer is spent.
  zu::Data finish(Ref root) &&;

 private:
  // A stored text: its reference, and the lower half of its bytes' hash (the table holds under 2^32 slots).
  struct TextSlot {
    std::uint32_t ref;
    std::uint32_t hash;
  };

  void makeRoom(std::size_t bytes);
  /// Records an object that starts at the document's end and takes at most `largest` bytes.
  Ref begin(std::size_t largest, bool container);
  /// Records an object that starts at `start`.
  Ref record(std::size_t start, bool container);
  Ref container(std::uint8_t marker, std::uint64_t count, std::span<const Ref> first,
                std::span<const Ref> second);
  std::span<const std::uint8_t> storedText(std::uint32_t ref, std::size_t textsEnd) const;
  void growTextSlots();
  void narrowReferences(unsigned refWidth);

  zu::Data out_;
  std::vector<std::uint64_t> offsets_;
  std::vector<bool> containers_;
  std::vector<TextSlot> textSlots_;
  std::size_t textCount_ = 0;
};

}  // namespace kiv::detail

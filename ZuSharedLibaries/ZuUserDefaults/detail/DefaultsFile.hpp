#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/detail/BinaryPlist.hpp"

namespace zu::detail {

/**
 * The contents of the user-defaults file: a dictionary of text keys and scalar values (integers, reals,
 * booleans, dates, texts, data), read where the bytes lie, so that a large value is neither copied nor
 * parsed. A file in another format libplist reads (XML) is read through libplist.
 *
 * What the store does not hold is left out: values of other kinds (arrays, dictionaries, a keyed archiver's
 * UIDs), and entries whose key is no text, repeats an earlier key or is not UTF-8, or whose text value is not
 * UTF-8 where it would have to be written again. The contents then say they are not whole, and the file is
 * kept aside before it is rewritten.
 */
class DefaultsFile {
 public:
  struct Entry {
    std::string key;
    bplist::Object value;
  };

  /// The contents of `bytes`, which must outlive them; nothing when they hold no dictionary.
  static std::optional<DefaultsFile> read(std::span<const std::uint8_t> bytes);

  const std::vector<Entry>& entries() const { return entries_; }
  /// Whether every entry of the file is among the entries.
  bool whole() const { return whole_; }
  /// The value under `key`, if any.
  const bplist::Object* find(std::string_view key) const;

 private:
  using Keys = std::unordered_set<std::string_view>;

  static std::optional<DefaultsFile> readBinary(std::span<const std::uint8_t> bytes);
  static std::optional<DefaultsFile> readOtherFormat(std::span<const std::uint8_t> bytes);
  // Adds an entry unless its value is not a scalar or its key is among `seen` (the keys of the entries,
  // which must not move meanwhile).
  void add(std::string key, bool exactKey, const bplist::Object& value, Keys& seen);

  std::vector<Entry> entries_;
  std::vector<Data> converted_;  // the values of a file in another format, encoded here
  bool whole_ = true;
};

/// One entry to write: its value is one encoded object, `head` then `body` (each viewed where it lies).
struct EncodedEntry {
  std::string_view key;
  std::span<const std::uint8_t> head;
  std::span<const std::uint8_t> body;
};

/**
 * Writes the defaults file of `entries` to `fd`, laid out as libplist lays out a dictionary: the dictionary
 * first, then each key and its value; a value equal to an earlier one is written once, unless it is data.
 * Bodies are written from where they lie, never copied.
 */
std::optional<Error> writeDefaultsFile(int fd, const std::vector<EncodedEntry>& entries);

}  // namespace zu::detail

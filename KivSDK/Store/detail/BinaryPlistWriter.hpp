#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ZuFoundation/Data.hpp"

namespace kiv::detail {

/**
 * Writes a binary property list ("bplist00") object by object: each call adds one object and returns its
 * reference, which later containers take as their elements; `finish` lays out the document with the given
 * root. Equal texts are stored once, as the platform's encoder does.
 *
 * libplist's own writer finds shared objects through a small fixed hash table, which makes a document of a
 * million objects take minutes; this one is linear.
 *
 * @par Thread Safety
 * One object per thread.
 */
class BinaryPlistWriter {
 public:
  using Ref = std::uint64_t;

  Ref boolean(bool value);
  Ref integer(std::int64_t value);
  Ref real(double value);
  /// A date, as seconds since the reference date.
  Ref date(double seconds);
  /// UTF-8 text (invalid sequences become U+FFFD); stored as ASCII or UTF-16 like the platform's writer.
  Ref string(std::string_view text);
  Ref array(const std::vector<Ref>& elements);
  /// A dictionary of `keys[i]` -> `values[i]`; the keys are string references.
  Ref dictionary(const std::vector<Ref>& keys, const std::vector<Ref>& values);

  /// The document with `root` as its top object.
  zu::Data finish(Ref root) const;

 private:
  enum class Kind : std::uint8_t { Scalar, Array, Dictionary };
  struct Object {
    Kind kind;
    std::size_t begin;  // into scalars_ for a scalar, into refs_ for a container
    std::size_t end;
  };

  Ref addScalar(const zu::Data& bytes);
  Ref addContainer(Kind kind, const std::vector<Ref>& first, const std::vector<Ref>& second);

  std::vector<Object> objects_;
  zu::Data scalars_;
  std::vector<Ref> refs_;
  std::unordered_map<std::string, Ref> strings_;
};

}  // namespace kiv::detail

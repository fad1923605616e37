#pragma once

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

namespace zu {

/**
 * JSON text to and from `AnyCodable`, the counterpart of the platform's `JSONSerialization`.
 *
 * Writing follows `AnyCodable::encode`: dictionaries keep their key order, a Date is written as its seconds
 * since the reference date, a URL as its text. Reading follows `AnyCodable::decode`: a number that is whole
 * and fits a signed 64-bit integer is an Int, a larger whole one a UInt, any other a Double (an integer past
 * 64 bits is read as the nearest double, so it is whole too; a number too small for a double is 0). A
 * dictionary keeps the document's key order; a repeated key keeps its first place and takes its last value.
 * A top-level scalar is a valid document, and a leading UTF-8 byte order mark is skipped.
 */
class JSONSerialization {
 public:
  /// Nesting deeper than this is rejected on reading, so hostile documents cannot exhaust the stack.
  static constexpr int maximumDepth = 512;

  /// The JSON text of `object`; fails as `AnyCodable::encode` does, and for a non-finite number.
  static Result<Data> data(const AnyCodable& object);
  /**
   * The value of a JSON text. Text that is not JSON (or not UTF-8, or holds a lone UTF-16 surrogate escape
   * or a number too large for a double, or is nested too deeply) fails with domain "NSCocoaErrorDomain",
   * code 3840, "The data couldn’t be read because it isn’t in the correct format."; its debug description
   * says what was wrong and where ("Garbage at end around line 1, column 9.").
   */
  static Result<AnyCodable> jsonObject(const Data& data);
};

}  // namespace zu

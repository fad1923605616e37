#pragma once

#include <any>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "ZuFoundation/Date.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"

namespace zu {

class AnyCodable;
class SingleValueEncoder;
class SingleValueDecoder;

/// A map from text keys to values that keeps the order in which keys were first set:
/// `AnyCodable::Dictionary`, the form of JSON objects and of an error's user info.
class AnyCodableDictionary {
 public:
  using Entry = std::pair<std::string, AnyCodable>;
  using const_iterator = std::vector<Entry>::const_iterator;

  AnyCodableDictionary() = default;
  /// Like a dictionary literal: when a key is repeated, the first value given for it is kept.
  AnyCodableDictionary(std::initializer_list<Entry> entries);
  /// The entries in their order, built in time linear in their number (a decoded document's members); a
  /// repeated key keeps its first position and takes its last value, as repeated `set` calls would.
  static AnyCodableDictionary fromEntries(std::vector<Entry>&& entries);

  std::size_t size() const;
  bool empty() const;
  const_iterator begin() const;
  const_iterator end() const;

  /// The value under `key`, or null when the key is absent.
  const AnyCodable* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  /// Sets `key` to `value`; a key already present keeps its position.
  void set(std::string key, AnyCodable value);
  /// Adds `key` only when it is absent; answers whether it was added.
  bool insert(std::string key, AnyCodable value);
  /// The value under `key`, added as an empty value when absent.
  AnyCodable& operator[](std::string_view key);

  /// Equal when both hold the same keys with equal values, in any order.
  friend bool operator==(const AnyCodableDictionary& lhs, const AnyCodableDictionary& rhs);

 private:
  std::vector<Entry> entries_;
};

/**
 * A JSON-like value of any kind, for free-form metadata and service answers.
 *
 * Every kind keeps its identity: an Int and an Int64 holding 1 are different values, so are an Int 1 and a
 * Double 1.0. Construction never fails; a value of a kind that has no JSON form (`Kind::Opaque`) fails only
 * when it is encoded.
 *
 * @code
 * using zu::AnyCodable;
 * AnyCodable meta = AnyCodable::Dictionary{{"camera", "rear"}, {"tags", AnyCodable::Array{"a", "b"}}};
 * auto json = zu::JSONSerialization::data(meta);  // {"camera":"rear","tags":["a","b"]}
 * @endcode
 *
 * @par Thread Safety
 * A value type: distinct objects may be used from distinct threads; one object may be read concurrently.
 */
class AnyCodable {
 public:
  enum class Kind {
    Empty,
    Bool,
    Int,
    Int8,
    Int16,
    Int32,
    Int64,
    UInt,
    UInt8,
    UInt16,
    UInt32,
    UInt64,
    Float,
    Double,
    String,
    Date,
    URL,
    Array,
    Dictionary,
    Opaque
  };

  using Array = std::vector<AnyCodable>;

  using Dictionary = AnyCodableDictionary;

  /// The empty kind (JSON null).
  AnyCodable() = default;
  AnyCodable(std::nullptr_t) {}
  AnyCodable(std::nullopt_t) {}
  AnyCodable(bool value) : kind_(Kind::Bool), storage_(value) {}
  /// Plain integers are stored as the platform-width Int kind, like integer literals.
  AnyCodable(int value) : AnyCodable(Kind::Int, std::int64_t{value}) {}
  AnyCodable(long value) : AnyCodable(Kind::Int, std::int64_t{value}) {}
  AnyCodable(long long value) : AnyCodable(Kind::Int, std::int64_t{value}) {}
  AnyCodable(unsigned value) : AnyCodable(Kind::UInt, std::uint64_t{value}) {}
  AnyCodable(unsigned long value) : AnyCodable(Kind::UInt, std::uint64_t{value}) {}
  AnyCodable(unsigned long long value) : AnyCodable(Kind::UInt, std::uint64_t{value}) {}
  AnyCodable(float value) : kind_(Kind::Float), storage_(value) {}
  AnyCodable(double value) : kind_(Kind::Double), storage_(value) {}
  AnyCodable(const char* value) : AnyCodable(std::string(value)) {}
  AnyCodable(std::string_view value) : AnyCodable(std::string(value)) {}
  AnyCodable(std::string value) : kind_(Kind::String), storage_(std::move(value)) {}
  AnyCodable(zu::Date value) : kind_(Kind::Date), storage_(value) {}
  AnyCodable(zu::URL value) : kind_(Kind::URL), storage_(std::move(value)) {}
  AnyCodable(Array value) : kind_(Kind::Array), storage_(std::move(value)) {}
  AnyCodable(Dictionary value) : kind_(Kind::Dictionary), storage_(std::move(value)) {}
  /// An absent optional becomes the empty kind.
  template <class T>
  AnyCodable(const std::optional<T>& value) : AnyCodable(value ? AnyCodable(*value) : AnyCodable()) {}

  /// The sized integer kinds, which plain construction never picks.
  static AnyCodable int8(std::int8_t value) { return {Kind::Int8, std::int64_t{value}}; }
  static AnyCodable int16(std::int16_t value) { return {Kind::Int16, std::int64_t{value}}; }
  static AnyCodable int32(std::int32_t value) { return {Kind::Int32, std::int64_t{value}}; }
  static AnyCodable int64(std::int64_t value) { return {Kind::Int64, value}; }
  static AnyCodable uint8(std::uint8_t value) { return {Kind::UInt8, std::uint64_t{value}}; }
  static AnyCodable uint16(std::uint16_t value) { return {Kind::UInt16, std::uint64_t{value}}; }
  static AnyCodable uint32(std::uint32_t value) { return {Kind::UInt32, std::uint64_t{value}}; }
  static AnyCodable uint64(std::uint64_t value) { return {Kind::UInt64, value}; }
  /// A value of any other type: kept and described, never encoded, never equal to anything.
  static AnyCodable opaque(std::any value) { return {Kind::Opaque, std::move(value)}; }

  Kind kind() const { return kind_; }
  bool isEmpty() const { return kind_ == Kind::Empty; }

  /// Typed access: the value when it is of the named kind (any width for the integer accessors), else
  /// nothing.
  std::optional<bool> boolValue() const;
  std::optional<std::int64_t> intValue() const;
  std::optional<std::uint64_t> uintValue() const;
  /// Float and Double values.
  std::optional<double> doubleValue() const;
  std::optional<zu::Date> dateValue() const;
  const std::string* stringValue() const { return std::get_if<std::string>(&storage_); }
  const zu::URL* urlValue() const { return std::get_if<zu::URL>(&storage_); }
  const Array* arrayValue() const { return std::get_if<Array>(&storage_); }
  const Dictionary* dictionaryValue() const { return std::get_if<Dictionary>(&storage_); }
  const std::any* opaqueValue() const { return std::get_if<std::any>(&storage_); }

  /**
   * Encodes the value into `encoder`, testing the kinds in a fixed order: empty, Bool, the integers, Float,
   * Double, String, Date, URL, array, dictionary. An Opaque value anywhere fails with an invalid-value error
   * (domain "NSCocoaErrorDomain", code 4866) whose debug description is "AnyCodable value cannot be encoded"
   * and whose "NSCodingPath" holds the path to it. The encoder may hold a partial result after a failure.
   */
  Result<void> encode(SingleValueEncoder& encoder) const;
  /**
   * Decodes a value, trying in order: null, Bool, Int, UInt, Double, String, array, dictionary. Anything
   * else fails with a data-corrupted error (domain "NSCocoaErrorDomain", code 4864) whose debug description
   * is "AnyCodable value cannot be decoded". Dates and URLs come back as strings.
   */
  static Result<AnyCodable> decode(const SingleValueDecoder& decoder);

  /// The value's own text: "nil", "true", "3", "1.5", the string itself, "[1, \"a\"]", "[\"k\": 2]".
  std::string description() const;
  /// "AnyCodable(" + the value's debug text (strings quoted) + ")".
  std::string debugDescription() const;
  /// The value's debug text: like `description()`, but a string is quoted and escaped.
  std::string valueDebugDescription() const;

  /// Equal only when both are of the same kind and equal under it; Date, URL and Opaque values equal nothing.
  friend bool operator==(const AnyCodable& lhs, const AnyCodable& rhs);

 private:
  using Storage = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, float, double, std::string,
                               zu::Date, zu::URL, Array, Dictionary, std::any>;

  AnyCodable(Kind kind, std::int64_t value) : kind_(kind), storage_(value) {}
  AnyCodable(Kind kind, std::uint64_t value) : kind_(kind), storage_(value) {}
  AnyCodable(Kind kind, std::any value) : kind_(kind), storage_(std::move(value)) {}

  Kind kind_ = Kind::Empty;
  Storage storage_;
};

// Defined once AnyCodable is complete: the entries' layout depends on it.
inline std::size_t AnyCodableDictionary::size() const { return entries_.size(); }
inline bool AnyCodableDictionary::empty() const { return entries_.empty(); }
inline AnyCodableDictionary::const_iterator AnyCodableDictionary::begin() const { return entries_.begin(); }
inline AnyCodableDictionary::const_iterator AnyCodableDictionary::end() const { return entries_.end(); }

/// The encode-only twin of `AnyCodable`: the same kinds, encoding, equality and texts.
class AnyEncodable {
 public:
  template <class... Args>
  requires std::constructible_from<AnyCodable, Args...> AnyEncodable(Args&&... args)
      : value_(std::forward<Args>(args)...) {}

  const AnyCodable& value() const { return value_; }
  /// Encodes by the rules of `AnyCodable::encode`.
  Result<void> encode(SingleValueEncoder& encoder) const;
  std::string description() const { return value_.description(); }
  /// "AnyEncodable(" + the value's debug text + ")".
  std::string debugDescription() const { return "AnyEncodable(" + value_.valueDebugDescription() + ")"; }
  friend bool operator==(const AnyEncodable&, const AnyEncodable&) = default;

 private:
  AnyCodable value_;
};

/// The decode-only twin of `AnyCodable`: the same kinds, decoding, equality and texts.
class AnyDecodable {
 public:
  template <class... Args>
  requires std::constructible_from<AnyCodable, Args...> AnyDecodable(Args&&... args)
      : value_(std::forward<Args>(args)...) {}

  /// Decodes by the rules of `AnyCodable::decode`.
  static Result<AnyDecodable> decode(const SingleValueDecoder& decoder);

  const AnyCodable& value() const { return value_; }
  std::string description() const { return value_.description(); }
  /// "AnyDecodable(" + the value's debug text + ")".
  std::string debugDescription() const { return "AnyDecodable(" + value_.valueDebugDescription() + ")"; }
  friend bool operator==(const AnyDecodable&, const AnyDecodable&) = default;

 private:
  AnyCodable value_;
};

/**
 * The target of `AnyCodable::encode`: a writer of one value at a time. Containers are opened, filled (a
 * dictionary's values each preceded by `encodeKey`) and closed with `endContainer`. JSON and property-list
 * writers implement it.
 */
class SingleValueEncoder {
 public:
  virtual ~SingleValueEncoder() = default;
  virtual void encodeNil() = 0;
  virtual void encode(bool value) = 0;
  /// Every signed width arrives here.
  virtual void encode(std::int64_t value) = 0;
  /// Every unsigned width arrives here.
  virtual void encode(std::uint64_t value) = 0;
  virtual void encode(float value) = 0;
  virtual void encode(double value) = 0;
  virtual void encode(const std::string& value) = 0;
  virtual void encode(zu::Date value) = 0;
  virtual void encode(const zu::URL& value) = 0;
  virtual void beginArray() = 0;
  virtual void beginDictionary() = 0;
  virtual void encodeKey(const std::string& key) = 0;
  virtual void endContainer() = 0;
};

/**
 * The source of `AnyCodable::decode`: one value of a parsed document, asked for each kind in turn. Each
 * `decode...` answers nothing when the value is not of that kind.
 */
class SingleValueDecoder {
 public:
  using Elements = std::vector<std::unique_ptr<SingleValueDecoder>>;
  using Members = std::vector<std::pair<std::string, std::unique_ptr<SingleValueDecoder>>>;

  virtual ~SingleValueDecoder() = default;
  /// The keys from the document's root down to this value (array positions read "Index N").
  virtual std::vector<std::string> codingPath() const = 0;
  virtual bool decodeNil() const = 0;
  virtual std::optional<bool> decodeBool() const = 0;
  virtual std::optional<std::int64_t> decodeInt() const = 0;
  virtual std::optional<std::uint64_t> decodeUInt() const = 0;
  virtual std::optional<double> decodeDouble() const = 0;
  virtual std::optional<std::string> decodeString() const = 0;
  virtual std::optional<Elements> decodeArray() const = 0;
  virtual std::optional<Members> decodeDictionary() const = 0;
};

}  // namespace zu

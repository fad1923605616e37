#include "AnyCodable/JSONSerialization.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <variant>
#include <vector>

namespace zu {
namespace {

// Written documents keep the dictionaries' key order; parsed ones use the sorted map, whose inserts stay
// cheap however many keys a hostile document holds.
using Json = nlohmann::ordered_json;
using ParsedJson = nlohmann::json;

Error readError(const std::string& debugDescription) {
  return Error(std::string(Error::cocoaDomain), CocoaError::propertyListReadCorrupt,
               {{std::string(Error::debugDescriptionKey), debugDescription}});
}

// Builds a JSON document from the values `AnyCodable::encode` hands over. (nlohmann's destructor may
// allocate while it takes a deep document apart; running out of memory there ends the program, as it would
// anywhere else.)
class JsonWriter final : public SingleValueEncoder {  // NOLINT(bugprone-exception-escape)
 public:
  Json& document() { return document_; }
  const std::optional<std::string>& failure() const { return failure_; }

  void encodeNil() override { put(nullptr); }
  void encode(bool value) override { put(value); }
  void encode(std::int64_t value) override { put(value); }
  void encode(std::uint64_t value) override { put(value); }
  void encode(float value) override {
    // Through the float's shortest text, so 1.1f is written as 1.1 and not as 1.100000023841858.
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    encode(std::strtod(std::string(buffer, end).c_str(), nullptr));
  }
  void encode(double value) override {
    if (!std::isfinite(value))
      failure_ = "Unable to encode Double." + std::string(std::isnan(value) ? "nan" : "infinity") +
                 " directly in JSON.";
    put(value);
  }
  void encode(const std::string& value) override { put(value); }
  void encode(Date value) override { put(value.timeIntervalSinceReferenceDate()); }
  void encode(const URL& value) override { put(value.absoluteString()); }
  void beginArray() override { open(Json::array()); }
  void beginDictionary() override { open(Json::object()); }
  void encodeKey(const std::string& key) override { pendingKey_ = key; }
  void endContainer() override { open_.pop_back(); }

 private:
  Json& put(Json value) {
    if (open_.empty()) return document_ = std::move(value);
    Json& container = *open_.back();
    if (container.is_array()) {
      container.push_back(std::move(value));
      return container.back();
    }
    return container[pendingKey_] = std::move(value);
  }
  void open(Json container) { open_.push_back(&put(std::move(container))); }

  Json document_;
  std::vector<Json*> open_;
  std::string pendingKey_;
  std::optional<std::string> failure_;
};

// Answers `AnyCodable::decode`'s questions about one node of a parsed document. A reader knows only its
// parent and its own key (an array position, or the parsed key it points into), so a child costs the same
// at any depth; the coding path is spelled out only when a failure asks for it.
class JsonReader final : public SingleValueDecoder {
 public:
  explicit JsonReader(const ParsedJson& node) : node_(node) {}
  // A child of `parent` under an array position or a key of the parsed document.
  JsonReader(const ParsedJson& node, const JsonReader& parent,
             std::variant<std::size_t, const std::string*> key)
      : node_(node), parent_(&parent), key_(key) {}

  std::vector<std::string> codingPath() const override {
    std::vector<std::string> path;
    for (const JsonReader* reader = this; reader->parent_; reader = reader->parent_)
      path.push_back(reader->key());
    std::reverse(path.begin(), path.end());
    return path;
  }
  bool decodeNil() const override { return node_.is_null(); }
  std::optional<bool> decodeBool() const override {
    if (!node_.is_boolean()) return std::nullopt;
    return node_.get<bool>();
  }
  std::optional<std::int64_t> decodeInt() const override {
    if (node_.is_number_integer() && !node_.is_number_unsigned()) return node_.get<std::int64_t>();
    if (node_.is_number_unsigned() && node_.get<std::uint64_t>() <= std::uint64_t(INT64_MAX)) {
      return static_cast<std::int64_t>(node_.get<std::uint64_t>());
    }
    if (node_.is_number_float() && isWhole(-0x1p63, 0x1p63))
      return static_cast<std::int64_t>(node_.get<double>());
    return std::nullopt;
  }
  std::optional<std::uint64_t> decodeUInt() const override {
    if (node_.is_number_unsigned()) return node_.get<std::uint64_t>();
    if (node_.is_number_float() && isWhole(0, 0x1p64)) return static_cast<std::uint64_t>(node_.get<double>());
    return std::nullopt;
  }
  std::optional<double> decodeDouble() const override {
    if (!node_.is_number()) return std::nullopt;
    return node_.get<double>();
  }
  std::optional<std::string> decodeString() const override {
    if (!node_.is_string()) return std::nullopt;
    return node_.get<std::string>();
  }
  std::optional<Elements> decodeArray() const override {
    if (!node_.is_array()) return std::nullopt;
    Elements elements;
    elements.reserve(node_.size());
    for (std::size_t i = 0; i < node_.size(); ++i) {
      elements.push_back(std::make_unique<JsonReader>(node_[i], *this, i));
    }
    return elements;
  }
  std::optional<Members> decodeDictionary() const override {
    if (!node_.is_object()) return std::nullopt;
    Members members;
    members.reserve(node_.size());
    for (auto it = node_.begin(); it != node_.end(); ++it) {
      const std::string& key = it.key();
      members.emplace_back(key, std::make_unique<JsonReader>(*it, *this, &key));
    }
    return members;
  }

 private:
  std::string key() const {
    if (const auto* index = std::get_if<std::size_t>(&key_)) return "Index " + std::to_string(*index);
    return *std::get<const std::string*>(key_);
  }
  bool isWhole(double lowest, double beyondHighest) const {
    const double value = node_.get<double>();
    return std::trunc(value) == value && value >= lowest && value < beyondHighest;
  }

  const ParsedJson& node_;
  const JsonReader* parent_ = nullptr;
  std::variant<std::size_t, const std::string*> key_;
};

bool isNestedTooDeeply(const Data& data) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (auto byte : data) {
    if (inString) {
      if (escaped)
        escaped = false;
      else if (byte == '\\')
        escaped = true;
      else if (byte == '"')
        inString = false;
    } else if (byte == '"') {
      inString = true;
    } else if (byte == '[' || byte == '{') {
      if (++depth > JSONSerialization::maximumDepth) return true;
    } else if (byte == ']' || byte == '}') {
      --depth;
    }
  }
  return false;
}

}  // namespace

Result<Data> JSONSerialization::data(const AnyCodable& object) {
  JsonWriter writer;
  if (auto encoded = object.encode(writer); !encoded) return encoded.error();
  if (writer.failure()) {
    return Error(std::string(Error::cocoaDomain), CocoaError::coderInvalidValue,
                 {{std::string(Error::debugDescriptionKey), *writer.failure()}});
  }
  const std::string text = writer.document().dump(-1, ' ', false, Json::error_handler_t::replace);
  return Data(text.begin(), text.end());
}

Result<AnyCodable> JSONSerialization::jsonObject(const Data& data) {
  if (isNestedTooDeeply(data)) {
    return readError("JSON nested deeper than " + std::to_string(maximumDepth) + " levels");
  }
  ParsedJson document;
  try {
    document = ParsedJson::parse(data.begin(), data.end());
  } catch (const ParsedJson::exception& error) {
    return readError(error.what());
  }
  return AnyCodable::decode(JsonReader(document));
}

}  // namespace zu

#include "AnyCodable/JSONSerialization.hpp"

#include "AnyCodable/detail/JSONReader.hpp"

#include <nlohmann/json.hpp>

#include <charconv>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

namespace zu {
namespace {

// Written documents keep the dictionaries' key order.
using Json = nlohmann::ordered_json;

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
  return detail::readJSON(data, maximumDepth);
}

}  // namespace zu

// Metadata arrives as free-form JSON and is kept flat, each leaf under its key path. Flattening any
// object and rebuilding it from its pairs must give back an object that flattens to the same pairs.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "AnyCodable/JSONSerialization.hpp"
#include "AnyCodable/MetadataFlattening.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto value = zu::JSONSerialization::jsonObject(zu::Data(data, data + size));
  const auto* object = value ? value->dictionaryValue() : nullptr;
  if (!object) return 0;
  (void)zu::flaten(*object, {"prefix"});
  const zu::FlatMetadata flat = zu::flatKeysEndCodableValueDictionary(*object);
  const std::vector<std::pair<zu::KeyPath, zu::AnyCodable>> pairs(flat.begin(), flat.end());
  const auto rebuilt = zu::dictionary(pairs);
  if (!rebuilt) std::abort();
  if (zu::flatKeysEndCodableValueDictionary(*rebuilt) != flat) std::abort();
  return 0;
}

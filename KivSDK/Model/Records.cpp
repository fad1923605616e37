#include "KivSDK/Model/detail/Records.hpp"

#include <cmath>
#include <utility>
#include <vector>

#include "ZuFoundation/FatalError.hpp"

namespace kiv::detail {

std::int64_t wholeSeconds(zu::Date date) {
  const double seconds = std::trunc(date.timeIntervalSinceReferenceDate());
  // 2^63 itself does not fit; every double below it that passes this test does.
  if (!std::isfinite(seconds) || seconds < -0x1p63 || seconds >= 0x1p63) {
    zu::fatalError("Date cannot be converted to whole seconds");
  }
  return static_cast<std::int64_t>(seconds);
}

std::optional<zu::AnyCodable::Dictionary> nestedMetadata(const std::optional<zu::FlatMetadata>& flat) {
  if (!flat) return std::nullopt;
  return zu::dictionary(std::vector<std::pair<zu::KeyPath, zu::AnyCodable>>(flat->begin(), flat->end()));
}

std::optional<zu::FlatMetadata> flatMetadata(const std::optional<zu::AnyCodable::Dictionary>& nested) {
  if (!nested) return std::nullopt;
  return zu::flatKeysEndCodableValueDictionary(*nested);
}

}  // namespace kiv::detail

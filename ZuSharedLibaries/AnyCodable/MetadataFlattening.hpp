#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AnyCodable/AnyCodable.hpp"

namespace zu {

/// The keys from the top of a nested map down to one leaf. Keys are never joined, so they may hold any
/// character, "." included.
using KeyPath = std::vector<std::string>;
/// Metadata in flat form, as the records keep it: each leaf under its key path.
using FlatMetadata = std::map<KeyPath, AnyCodable>;

/**
 * The leaves of a nested map, each under `parentKeys` followed by its own key path, in the map's order.
 * A value that is a dictionary is a branch; every other value is a leaf and becomes its text
 * (`description()`): 3 becomes "3", true becomes "true". An empty branch yields no pair.
 */
std::vector<std::pair<KeyPath, std::string>> flaten(const AnyCodable::Dictionary& map,
                                                    const KeyPath& parentKeys);

/// The flat form of a nested map: `flaten` with no prefix, each leaf text wrapped as an `AnyCodable`.
FlatMetadata flatKeysEndCodableValueDictionary(const AnyCodable::Dictionary& map);

/**
 * Rebuilds a nested map from flat pairs. Where a key has both a leaf and a branch under it, the leaf wins.
 * Nothing when a pair has an empty key path; an empty list gives an empty map.
 *
 * @code
 * zu::dictionary({{{"a"}, 1}, {{"a", "b"}, 2}});  // {"a": 1}
 * @endcode
 */
std::optional<AnyCodable::Dictionary> dictionary(const std::vector<std::pair<KeyPath, AnyCodable>>& pairs);

}  // namespace zu

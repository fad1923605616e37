#include "AnyCodable/MetadataFlattening.hpp"

#include <algorithm>

namespace zu {

std::vector<std::pair<KeyPath, std::string>> flaten(const AnyCodable::Dictionary& map,
                                                    const KeyPath& parentKeys) {
  std::vector<std::pair<KeyPath, std::string>> pairs;
  for (const auto& [key, value] : map) {
    KeyPath path = parentKeys;
    path.push_back(key);
    if (const auto* branch = value.dictionaryValue()) {
      auto leaves = flaten(*branch, path);
      std::move(leaves.begin(), leaves.end(), std::back_inserter(pairs));
    } else {
      pairs.emplace_back(std::move(path), value.description());
    }
  }
  return pairs;
}

FlatMetadata flatKeysEndCodableValueDictionary(const AnyCodable::Dictionary& map) {
  FlatMetadata flat;
  for (auto& [path, text] : flaten(map, {})) flat.emplace(std::move(path), AnyCodable(std::move(text)));
  return flat;
}

std::optional<AnyCodable::Dictionary> dictionary(const std::vector<std::pair<KeyPath, AnyCodable>>& pairs) {
  using Pair = std::pair<KeyPath, AnyCodable>;
  if (std::any_of(pairs.begin(), pairs.end(), [](const Pair& pair) { return pair.first.empty(); })) {
    return std::nullopt;
  }
  AnyCodable::Dictionary result;
  for (const auto& [path, value] : pairs) {
    const std::string& firstKey = path.front();
    if (result.contains(firstKey)) continue;
    std::vector<Pair> branch;
    const AnyCodable* leaf = nullptr;
    for (const auto& [otherPath, otherValue] : pairs) {
      if (otherPath.front() != firstKey) continue;
      if (otherPath.size() == 1) {
        leaf = &otherValue;
        break;
      }
      branch.emplace_back(KeyPath(otherPath.begin() + 1, otherPath.end()), otherValue);
    }
    if (leaf) {
      result.set(firstKey, *leaf);
    } else if (auto rebuilt = dictionary(branch)) {
      result.set(firstKey, std::move(*rebuilt));
    }
  }
  return result;
}

}  // namespace zu

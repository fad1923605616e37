#include "ZuMailList/ZuMailList.hpp"

#include <utility>

namespace zu {

ZuMailList::ZuMailList(std::string name, std::string description, bool subscribed)
    : name(std::move(name)), description(std::move(description)), subscribed(subscribed) {}

std::string_view ZuMailList::statusString() const {
  return subscribed ? ServiceKeys::subscribed : ServiceKeys::unsubscribed;
}

AnyCodable::Dictionary ZuMailList::dictionaryRepresentation(
    const std::map<std::string, std::string>& with) const {
  AnyCodable::Dictionary dict{{std::string(ServiceKeys::name), name},
                              {std::string(ServiceKeys::status), statusString()}};
  if (!with.empty()) {
    AnyCodable::Dictionary fields;
    for (const auto& [key, value] : with) fields.set(key, value);
    dict.set(std::string(ServiceKeys::mergeFields), std::move(fields));
  }
  return dict;
}

AnyCodable::Dictionary ZuMailList::encoded() const {
  return {{"name", name}, {"description", description}, {"subscribed", subscribed}};
}

std::optional<ZuMailList> ZuMailList::decoded(const AnyCodable::Dictionary& dict) {
  const auto* name = dict.find("name");
  const auto* description = dict.find("description");
  const auto* subscribed = dict.find("subscribed");
  if (!name || !name->stringValue() || !description || !description->stringValue() || !subscribed ||
      !subscribed->boolValue()) {
    return std::nullopt;
  }
  return ZuMailList(*name->stringValue(), *description->stringValue(), *subscribed->boolValue());
}

}  // namespace zu

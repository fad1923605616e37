#include "KivSDK/API/KivUserProperties.hpp"

#include <utility>

#include "KivSDK/API/KivAPI.hpp"

namespace kiv {
namespace {

using zu::AnyCodable;
using Keys = KivAPI::Const::API::Newsletter;

// An optional text field: absent, null or text; anything else makes the record unreadable.
bool isOptionalText(const AnyCodable* value) { return !value || value->isEmpty() || value->stringValue(); }

std::optional<std::string> text(const AnyCodable* value) {
  return value && value->stringValue() ? std::optional(*value->stringValue()) : std::nullopt;
}

}  // namespace

KivUserProperties::KivUserProperties(std::optional<std::string> email, std::optional<std::string> phone,
                                     std::vector<zu::ZuMailList> mailingLists)
    : email(std::move(email)), phone(std::move(phone)), mailingLists(std::move(mailingLists)) {}

AnyCodable::Dictionary KivUserProperties::dictionaryRepresentation() const {
  std::map<std::string, std::string> mergeFields;
  if (phone) mergeFields.emplace(Keys::MailingList::MergeFields::phone, *phone);
  AnyCodable::Array lists;
  lists.reserve(mailingLists.size());
  for (const zu::ZuMailList& list : mailingLists)
    lists.emplace_back(list.dictionaryRepresentation(mergeFields));
  AnyCodable::Dictionary dict{{std::string(Keys::mailingLists), std::move(lists)}};
  if (email) dict.set(std::string(Keys::email), *email);
  return dict;
}

std::map<std::string, bool> KivUserProperties::subscriptionsDictionary() const {
  std::map<std::string, bool> subscriptions;
  for (const zu::ZuMailList& list : mailingLists) subscriptions[list.name] = list.subscribed;
  return subscriptions;
}

AnyCodable::Dictionary KivUserProperties::encoded() const {
  AnyCodable::Array lists;
  lists.reserve(mailingLists.size());
  for (const zu::ZuMailList& list : mailingLists) lists.emplace_back(list.encoded());
  AnyCodable::Dictionary dict;
  if (email) dict.set("email", *email);
  if (phone) dict.set("phone", *phone);
  dict.set("mailingLists", std::move(lists));
  return dict;
}

std::optional<KivUserProperties> KivUserProperties::decoded(const AnyCodable::Dictionary& dict) {
  const AnyCodable* email = dict.find("email");
  const AnyCodable* phone = dict.find("phone");
  const AnyCodable* lists = dict.find("mailingLists");
  if (!isOptionalText(email) || !isOptionalText(phone) || !lists || !lists->arrayValue()) return std::nullopt;
  KivUserProperties properties(text(email), text(phone), {});
  for (const AnyCodable& element : *lists->arrayValue()) {
    const auto* object = element.dictionaryValue();
    auto list = object ? zu::ZuMailList::decoded(*object) : std::nullopt;
    if (!list) return std::nullopt;
    properties.mailingLists.push_back(std::move(*list));
  }
  return properties;
}

}  // namespace kiv

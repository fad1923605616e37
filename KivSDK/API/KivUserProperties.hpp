#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "AnyCodable/AnyCodable.hpp"
#include "ZuMailList/ZuMailList.hpp"

namespace kiv {

/**
 * The user's contact details and the newsletters they want, as `KivAPI::updateNewsletters` sends them: a
 * value record. Its stored form (`encoded()`) uses the keys "email", "phone" and "mailingLists".
 */
struct KivUserProperties {
  /// Required by `KivAPI::updateNewsletters`.
  std::optional<std::string> email;
  std::optional<std::string> phone;
  /// The newsletters and the wanted state of each, in the caller's order.
  std::vector<zu::ZuMailList> mailingLists;

  KivUserProperties(std::optional<std::string> email, std::optional<std::string> phone,
                    std::vector<zu::ZuMailList> mailingLists);

  /**
   * The body the service receives: "mailing_lists" (always, one object per list, each carrying the phone
   * number under "merge_fields" {"PHONE": ...} when there is one) and "email" when present. The phone number
   * never stands at the top level.
   */
  zu::AnyCodable::Dictionary dictionaryRepresentation() const;
  /// Each list's name mapped to its flag; a later list with the same name wins.
  std::map<std::string, bool> subscriptionsDictionary() const;

  /// The stored form: {"email", "phone", "mailingLists"}, absent optionals left out.
  zu::AnyCodable::Dictionary encoded() const;
  /// Properties read from their stored form; nothing when a field is of another type or a list unreadable.
  static std::optional<KivUserProperties> decoded(const zu::AnyCodable::Dictionary& dict);

  friend bool operator==(const KivUserProperties&, const KivUserProperties&) = default;
};

}  // namespace kiv

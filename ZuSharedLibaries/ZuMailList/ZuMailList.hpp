#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "AnyCodable/AnyCodable.hpp"

namespace zu {

/**
 * One newsletter of a service and whether the user wants it: a value record.
 *
 * It has two forms: the stored form (`encoded()`, keys "name", "description", "subscribed"), in which a host
 * may keep it, and the form a service receives (`dictionaryRepresentation`), which names the list and its
 * status and never carries the description.
 */
struct ZuMailList {
  /// The keys and texts of the form a service receives.
  struct ServiceKeys {
    static constexpr std::string_view name = "name";
    static constexpr std::string_view status = "status";
    static constexpr std::string_view mergeFields = "merge_fields";
    static constexpr std::string_view subscribed = "subscribed";
    static constexpr std::string_view unsubscribed = "unsubscribed";
  };

  /// The newsletter's identifier on the service.
  std::string name;
  /// Text to show to the user; never sent.
  std::string description;
  bool subscribed = false;

  ZuMailList(std::string name, std::string description, bool subscribed);

  /// "subscribed" or "unsubscribed".
  std::string_view statusString() const;
  /// {"name", "status", "merge_fields"}; "merge_fields" only when `mergeFields` is not empty.
  AnyCodable::Dictionary dictionaryRepresentation(const std::map<std::string, std::string>& with) const;

  /// The stored form: {"name", "description", "subscribed"}.
  AnyCodable::Dictionary encoded() const;
  /// A list read from its stored form; nothing when a field is missing or of another type.
  static std::optional<ZuMailList> decoded(const AnyCodable::Dictionary& dict);

  friend bool operator==(const ZuMailList&, const ZuMailList&) = default;
};

}  // namespace zu

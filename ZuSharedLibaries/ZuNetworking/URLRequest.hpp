#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/URL.hpp"

namespace zu {

/// Header fields in the order they were first set; names compare without regard to case.
class HTTPHeaderFields {
 public:
  using Field = std::pair<std::string, std::string>;

  /// The value of `name`, nothing when absent.
  std::optional<std::string> value(std::string_view name) const;
  /// Replaces the value of `name` (adds it when absent).
  void setValue(std::string value, std::string_view name);
  /// Adds a value to `name`: a second value is joined to the first with "," as one field.
  void addValue(std::string_view value, std::string_view name);
  const std::vector<Field>& fields() const { return fields_; }

  friend bool operator==(const HTTPHeaderFields&, const HTTPHeaderFields&) = default;

 private:
  Field* find(std::string_view name);
  std::vector<Field> fields_;
};

/**
 * An HTTP request, the counterpart of the platform's `URLRequest`.
 *
 * `timeoutInterval` is an idle time-out, in seconds and fractions of one: a transfer is given up when no byte
 * has moved either way for that long, never because the whole exchange is long. Opening the connection has a
 * time-out of its own, the same but at most 60 seconds.
 */
struct URLRequest {
  /// There is no response cache in this system; the policy is carried for callers that read it back.
  enum class CachePolicy { useProtocolCachePolicy = 0, reloadIgnoringLocalCacheData = 1 };

  explicit URLRequest(URL url, CachePolicy cachePolicy = CachePolicy::useProtocolCachePolicy,
                      double timeoutInterval = 60.0)
      : url(std::move(url)), cachePolicy(cachePolicy), timeoutInterval(timeoutInterval) {}

  URL url;
  CachePolicy cachePolicy;
  double timeoutInterval;
  std::string httpMethod = "GET";
  HTTPHeaderFields allHTTPHeaderFields;
  std::optional<Data> httpBody;
  /// The most answer bytes a data or upload task keeps; nothing for no bound. One byte past it the transfer
  /// stops and completes with what it kept, so the caller sees that the answer was too long without ever
  /// holding the rest. Downloads, which go to a file, ignore it.
  std::optional<std::size_t> maximumResponseLength;

  std::optional<std::string> value(std::string_view forHTTPHeaderField) const {
    return allHTTPHeaderFields.value(forHTTPHeaderField);
  }
  void setValue(std::string value, std::string_view forHTTPHeaderField) {
    allHTTPHeaderFields.setValue(std::move(value), forHTTPHeaderField);
  }
  void addValue(std::string_view value, std::string_view forHTTPHeaderField) {
    allHTTPHeaderFields.addValue(value, forHTTPHeaderField);
  }

  friend bool operator==(const URLRequest&, const URLRequest&) = default;
};

/// The head of an HTTP answer, the counterpart of the platform's `HTTPURLResponse`.
struct HTTPURLResponse {
  /// The URL that answered (after redirects).
  URL url;
  int statusCode = 0;
  HTTPHeaderFields allHeaderFields;

  /// The platform's lower-case phrase for a status ("no error" for 200, "not found" for 404, ...); a code
  /// without a phrase of its own gets its class's ("informational", "success", "redirected",
  /// "client error", "server error").
  static std::string localizedString(int forStatusCode);
};

}  // namespace zu

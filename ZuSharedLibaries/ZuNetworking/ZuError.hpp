#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/Error.hpp"

namespace zu {

/**
 * The networking layer's own failures. The codes are fixed and deliberately do not follow the order of
 * declaration. A `ZuError` converts to `zu::Error` (domain `errorDomain()`) and back with `Error::zuError()`.
 *
 * @par Thread Safety
 * A value type. The class-wide domain may be read and set from any thread.
 */
class ZuError {
 public:
  enum class Kind {
    invalidResponseData = 1002,
    unsuccesfullHTTPResponseCode = 1003,
    invalidPayload = 1004,
    missingRequestData = 1000,
    emptyResponseData = 1001,
  };

  /// The user-info key under which `unsuccesfullHTTPResponseCode` carries its status code.
  static constexpr std::string_view statusCodeKey = "ZuNetworking.ErrorUserInfo.StatusCode";
  /// The description `emptyResponseData` reports when it was given none.
  static constexpr std::string_view emptyResponseDataText =
      "The response did not contain any data as expected";

  static ZuError invalidResponseData(std::optional<std::string> description = std::nullopt);
  static ZuError unsuccesfullHTTPResponseCode(int statusCode,
                                              std::optional<std::string> description = std::nullopt);
  static ZuError invalidPayload(std::optional<std::string> description = std::nullopt);
  static ZuError missingRequestData(std::optional<std::string> description = std::nullopt);
  static ZuError emptyResponseData(std::optional<std::string> description = std::nullopt);

  /// The error domain of every `ZuError`; "com.zumbrel.networking" until a host sets another.
  static std::string errorDomain();
  static void setErrorDomain(std::string domain);

  Kind kind() const { return kind_; }
  long errorCode() const { return static_cast<long>(kind_); }
  const std::optional<std::string>& description() const { return description_; }
  /// The status code of `unsuccesfullHTTPResponseCode`; nothing for the other kinds.
  std::optional<int> statusCode() const { return statusCode_; }
  /// The status (for `unsuccesfullHTTPResponseCode`) and the localized description, as described per kind.
  Error::UserInfo errorUserInfo() const;

  /// The platform error: domain `errorDomain()`, code `errorCode()`, user info `errorUserInfo()`.
  Error toError() const;
  operator Error() const { return toError(); }

  friend bool operator==(const ZuError&, const ZuError&) = default;

 private:
  ZuError(Kind kind, std::optional<std::string> description, std::optional<int> statusCode = std::nullopt)
      : kind_(kind), description_(std::move(description)), statusCode_(statusCode) {}
  friend class Error;

  Kind kind_;
  std::optional<std::string> description_;
  std::optional<int> statusCode_;
};

}  // namespace zu

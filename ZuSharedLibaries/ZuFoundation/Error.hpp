#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "AnyCodable/AnyCodable.hpp"

namespace zu {

class ZuError;

/// The codes of domain "NSCocoaErrorDomain" that the SDK reports, named as on the platform. Compare them with
/// `Error::code()`.
struct CocoaError {
  enum Code : long {
    /// Text that is not JSON (or a property list) at all.
    propertyListReadCorrupt = 3840,
    /// Decoding: a value is missing, of the wrong kind or invalid.
    coderReadCorrupt = 4864,
    /// Encoding: a value has no encoded form.
    coderInvalidValue = 4866,
  };
};

/**
 * An error value in the platform's shape: a domain, a code and a user-info map.
 *
 * Domains used by the SDK: "NSPOSIXErrorDomain" (file operations, code = errno), "NSCocoaErrorDomain"
 * (JSON and coding failures), "NSURLErrorDomain" (transport failures) and the networking layer's own.
 */
class Error {
 public:
  using UserInfo = AnyCodable::Dictionary;

  static constexpr std::string_view posixDomain = "NSPOSIXErrorDomain";
  static constexpr std::string_view cocoaDomain = "NSCocoaErrorDomain";
  static constexpr std::string_view urlDomain = "NSURLErrorDomain";
  static constexpr std::string_view localizedDescriptionKey = "NSLocalizedDescription";
  static constexpr std::string_view debugDescriptionKey = "NSDebugDescription";
  static constexpr std::string_view codingPathKey = "NSCodingPath";

  Error(std::string domain, long code, UserInfo userInfo = {});
  /// A file-system error from an `errno` value.
  static Error posix(int errorNumber);
  /// A file-system error from an `errno` value, with a text for people that says what it was about.
  static Error posix(int errorNumber, std::string description);

  const std::string& domain() const { return domain_; }
  long code() const { return code_; }
  const UserInfo& userInfo() const { return userInfo_; }

  /**
   * The text for people: the user info's "NSLocalizedDescription" when it is a string; else the domain's
   * own text for the code (strerror for POSIX errors, the platform's texts for the coding errors); else
   * "The operation couldn’t be completed. (<domain> error <code>.)".
   */
  std::string localizedDescription() const;
  /// The networking error inside, when the domain is `ZuError::errorDomain()` and the code one of its codes.
  /// Defined with `ZuError` (include "ZuNetworking/ZuError.hpp" to call it).
  std::optional<ZuError> zuError() const;

  friend bool operator==(const Error&, const Error&) = default;

 private:
  std::string domain_;
  long code_;
  UserInfo userInfo_;
};

}  // namespace zu

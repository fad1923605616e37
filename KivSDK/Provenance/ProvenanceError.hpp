#pragma once

#include <string>
#include <string_view>

#include "ZuFoundation/Error.hpp"

namespace kiv {

/**
 * The errors of the provenance component, in domain "KivProvenanceErrorDomain"; the text for people is the
 * error's `localizedDescription()`. File and networking failures keep their own domains.
 */
struct ProvenanceError {
  static constexpr std::string_view domain = "KivProvenanceErrorDomain";

  enum Code : long {
    /// Bytes that are not what they claim to be: not canonical JSON, not a JWS, not a key, not a PDF.
    malformed = 1,
    /// A signature that does not verify, or one by a key other than the expected one.
    signatureInvalid = 2,
    /// The device key cannot be made, read or used.
    deviceKeyUnavailable = 3,
    /// The record cannot be stated: no digest, no local content, or content that changed.
    unstatableFile = 4,
  };

  static zu::Error make(Code code, std::string message);
};

}  // namespace kiv

#pragma once

#include <curl/curl.h>

#include <string>

#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/detail/SystemErrorText.hpp"

namespace zu::detail {

/// NSURLErrorDomain codes used by the transport.
enum URLErrorCode : long {
  cancelled = -999,
  unknown = -1,
  badURL = -1000,
  timedOut = -1001,
  unsupportedURL = -1002,
  cannotFindHost = -1003,
  cannotConnectToHost = -1004,
  networkConnectionLost = -1005,
  httpTooManyRedirects = -1007,
  fileDoesNotExist = -1100,
  secureConnectionFailed = -1200,
  serverCertificateUntrusted = -1202,
  cannotWriteToFile = -3003,
};

/// A transport error with the platform's text, the failing URL and (for the developer) curl's own detail.
Error urlError(URLErrorCode code, const std::string& failingURL, const std::string& detail = {});
/// The transport error for a curl result other than CURLE_OK.
Error urlError(CURLcode result, const std::string& failingURL, const std::string& detail);

}  // namespace zu::detail

#pragma once

#include <curl/curl.h>

#include <string>

#include "ZuFoundation/Error.hpp"
#include "ZuNetworking/URLError.hpp"

namespace zu::detail {

/// A transport error with the platform's text, the failing URL and (for the developer) curl's own detail.
Error urlError(URLError::Code code, const std::string& failingURL, const std::string& detail = {});
/// The transport error for a curl result other than CURLE_OK.
Error urlError(CURLcode result, const std::string& failingURL, const std::string& detail);

}  // namespace zu::detail

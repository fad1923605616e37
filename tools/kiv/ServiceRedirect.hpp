#pragma once

#include <string>

#include "KivSDK/API/KivAPI.hpp"

namespace kivcli {

/**
 * The networking type for a certification service at `baseURL` (https, no trailing "/") instead of the one
 * the SDK was built for: requests meant for the built-in address go to `baseURL`, and sessions trust the
 * authorities in `caFile` (PEM) besides the system's; without `caFile`, the authorities a default SDK
 * trusts. Certificates are always verified.
 */
kiv::KivAPI::NetworkingType redirectedNetworkingType(const std::string& baseURL, const std::string& caFile);

}  // namespace kivcli

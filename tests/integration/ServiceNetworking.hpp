#pragma once

#include "KivSDK/API/KivAPI.hpp"
#include "integration/ServiceAddress.hpp"

namespace kivtest {

/**
 * The networking type of the end-to-end tests: `zu::ZuNetworking` whose sessions trust the test service's CA
 * (besides the system's authorities) and send the requests meant for the SDK's built-in service address to
 * the test service instead. Verification stays on: only the authorities trusted change.
 */
kiv::KivAPI::NetworkingType serviceNetworkingType(const ServiceAddress& address);

}  // namespace kivtest

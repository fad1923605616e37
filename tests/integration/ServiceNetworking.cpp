#include "integration/ServiceNetworking.hpp"

#include "ServiceRedirect.hpp"

namespace kivtest {

kiv::KivAPI::NetworkingType serviceNetworkingType(const ServiceAddress& address) {
  return kivcli::redirectedNetworkingType(address.baseURL, address.caFile);
}

}  // namespace kivtest

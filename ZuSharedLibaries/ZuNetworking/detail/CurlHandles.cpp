#include "ZuNetworking/detail/CurlHandles.hpp"

#include <mutex>

#include "ZuFoundation/FatalError.hpp"

namespace zu::detail {

void ensureCurlGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("curl_global_init failed");
  });
}

}  // namespace zu::detail

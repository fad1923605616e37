// KivAPI: registering the user's contact details and newsletter subscriptions.
#include <string>
#include <utility>

#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/API/detail/ServiceCalls.hpp"

namespace kiv {
namespace {

constexpr std::string_view kMissingEmail = "Email properties for request are missing mandatory 'email' value";
constexpr std::string_view kMissingSuccess = "Response JSON dictionary is missing 'success' value";

// The service's verdict: its "success" flag, passed on as it is (false is no error).
zu::Result<bool> success(const detail::Dictionary& answer) {
  const zu::AnyCodable* value = answer.find(KivAPI::Const::API::Newsletter::success);
  if (auto flag = value ? value->boolValue() : std::nullopt) return *flag;
  return detail::invalidResponse(kMissingSuccess);
}

}  // namespace

void KivAPI::updateNewsletters(const KivUserProperties& properties, const std::string& language,
                               SuccessCompletion completion) {
  if (!properties.email) return completion(false, detail::invalidResponse(kMissingEmail));
  detail::request(APIEndpoint::postUserProperties(properties), {{"Accept-Language", language}},
                  std::move(completion), success);
}

}  // namespace kiv

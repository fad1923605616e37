#include "KivSDK/API/detail/ServiceCalls.hpp"

#include <string>

#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuNetworking/ZuError.hpp"

namespace kiv::detail {

zu::Error invalidResponse(std::string_view message) {
  return zu::ZuError::invalidResponseData(std::string(message));
}

const std::string* textValue(const Dictionary& dict, std::string_view key) {
  const zu::AnyCodable* value = dict.find(key);
  return value ? value->stringValue() : nullptr;
}

std::optional<zu::URL> urlValue(const Dictionary& dict, std::string_view key) {
  const std::string* text = textValue(dict, key);
  return text ? zu::URL::fromString(*text) : std::nullopt;
}

void sendToService(const KivAPI::APIEndpoint& endpoint, const zu::ZuNetworking::Headers& extraHeaders,
                   zu::ZuNetworking::DictionaryCompletion completion) {
  KivAPI::_clientInstance()->sendRequestWithDictionaryResponse(
      endpoint.url(), endpoint.httpMethod(), extraHeaders, zu::AnyCodable(endpoint.payload()),
      std::move(completion));
}

void moveDownload(const std::optional<zu::URL>& location, const std::optional<zu::Error>& error,
                  const zu::URL& destination, std::string_view missingMessage,
                  const KivAPI::SuccessCompletion& completion) {
  if (error) return completion(false, error);
  if (!location) return completion(false, invalidResponse(missingMessage));
  zu::ZuFileManager::moveFile(*location, destination, completion);
}

}  // namespace kiv::detail

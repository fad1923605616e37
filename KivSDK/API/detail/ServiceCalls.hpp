#pragma once

#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "AnyCodable/AnyCodable.hpp"
#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"
#include "ZuNetworking/ZuNetworking.hpp"

// What the operations of KivAPI share: sending an endpoint, judging its answer, handing the outcome over.
namespace kiv::detail {

using Dictionary = zu::AnyCodable::Dictionary;

/// A failure found by the SDK's own checks: `invalidResponseData` carrying `message`.
zu::Error invalidResponse(std::string_view message);

/// The text under `key`, null when it is missing or not text.
const std::string* textValue(const Dictionary& dict, std::string_view key);
/// The text under `key` as a URL; nothing when it is missing, not text or no URL.
std::optional<zu::URL> urlValue(const Dictionary& dict, std::string_view key);

/// Calls a completion of (optional value or success flag, optional error) with the error alone.
template <class Completion>
void fail(const Completion& completion, zu::Error error) {
  if constexpr (std::is_invocable_v<Completion, bool, std::optional<zu::Error>>) {
    completion(false, std::move(error));
  } else {
    completion(std::nullopt, std::move(error));
  }
}

/// Calls `completion` with the value of `result`, or fails it with its error.
template <class T, class Completion>
void complete(const Completion& completion, zu::Result<T> result) {
  if (!result) return fail(completion, result.error());
  completion(std::move(*result), std::nullopt);
}

/// Sends `endpoint` on the client instance with its URL, method and payload; the answer must be an object.
void sendToService(const KivAPI::APIEndpoint& endpoint, const zu::ZuNetworking::Headers& extraHeaders,
                   zu::ZuNetworking::DictionaryCompletion completion);

/// Sends `endpoint` and hands `completion` what `judge` makes of the answer (a `zu::Result`), or the
/// networking layer's error.
template <class Completion, class Judge>
void request(const KivAPI::APIEndpoint& endpoint, const zu::ZuNetworking::Headers& extraHeaders,
             Completion completion, Judge judge) {
  sendToService(endpoint, extraHeaders,
                [completion = std::move(completion), judge = std::move(judge)](
                    std::optional<Dictionary> answer, std::optional<zu::Error> error) {
                  if (error) return fail(completion, std::move(*error));
                  complete(completion, judge(*answer));
                });
}

/// The end of a download that must land at `destination`: the networking error, `missingMessage` when no
/// file came back, else what moving the file reports.
void moveDownload(const std::optional<zu::URL>& location, const std::optional<zu::Error>& error,
                  const zu::URL& destination, std::string_view missingMessage,
                  const KivAPI::SuccessCompletion& completion);

}  // namespace kiv::detail

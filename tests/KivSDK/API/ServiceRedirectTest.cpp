#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>

#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "ZuNetworking/URLError.hpp"
#include "support/LoopbackServer.hpp"

namespace {

using kiv::KivAPI;

class RefusedAddress : public ::testing::TestWithParam<std::string> {};

TEST_P(RefusedAddress, IsABadURLThatNamesIt) {
  const auto type = KivAPI::redirectedNetworkingType(GetParam());
  ASSERT_FALSE(type);
  EXPECT_EQ(type.error().domain(), zu::Error::urlDomain);
  EXPECT_EQ(type.error().code(), zu::URLError::badURL);
  EXPECT_EQ(type.error().localizedDescription(),
            "The service's address must be an https address, not \"" + GetParam() + "\".");
}

INSTANTIATE_TEST_SUITE_P(ServiceRedirect, RefusedAddress,
                         ::testing::Values("", "/", "http://127.0.0.1:8443", "127.0.0.1:8443", "https://",
                                           "https://exa mple.com", "ftp://example.com"));

struct Answer {
  std::optional<zu::AnyCodable> payload;
  std::optional<zu::Error> error;
};

// The answer to a GET of `path` under the SDK's built-in service address, sent through `type`.
Answer getBuiltIn(const KivAPI::NetworkingType& type, const std::string& path) {
  const auto networking = type(std::nullopt, "kivtest.redirect");
  const auto url = zu::URL::fromString(std::string(KivAPI::APIEndpoint::baseURL()) + path);
  std::promise<Answer> answered;
  networking->sendRequest(*url, "GET", {}, std::nullopt, false, [&](auto payload, auto error) {
    answered.set_value({std::move(payload), std::move(error)});
  });
  return answered.get_future().get();
}

class ServiceRedirect : public ::testing::Test {
 protected:
  zutest::LoopbackServer server;
};

TEST_F(ServiceRedirect, SendsTheBuiltInServicesRequestsToTheAddressGiven) {
  // Trailing "/" are dropped, as a user typing an address may add one.
  const auto type = KivAPI::redirectedNetworkingType(server.url("//"), server.caFile());
  ASSERT_TRUE(type) << type.error().localizedDescription();
  const Answer answer = getBuiltIn(*type, "/echo");
  ASSERT_FALSE(answer.error) << answer.error->localizedDescription();
  EXPECT_EQ(*answer.payload->dictionaryValue()->find("method"), zu::AnyCodable("GET"));
  EXPECT_EQ(server.requestCount(), 1);
}

TEST_F(ServiceRedirect, TrustsOnlyTheAuthoritiesGiven) {
  const auto type = KivAPI::redirectedNetworkingType(server.url(""), server.strangerCAFile());
  ASSERT_TRUE(type);
  const Answer answer = getBuiltIn(*type, "/echo");
  ASSERT_TRUE(answer.error);
  EXPECT_EQ(answer.error->code(), zu::URLError::serverCertificateUntrusted);
  EXPECT_FALSE(answer.payload);
}

}  // namespace

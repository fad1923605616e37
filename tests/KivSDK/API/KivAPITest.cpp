#include "KivSDK/API/KivAPI.hpp"

#include <gtest/gtest.h>

#include <ostream>

#include <set>
#include <thread>
#include <vector>

#include "FakeService.hpp"
#include "KivSDK/API/APIEndpoint.hpp"
#include "ZuFoundation/DispatchQueue.hpp"

namespace {

using kiv::KivAPI;
using kivtest::FakeServiceTest;

using KivAPIInstances = FakeServiceTest;

TEST_F(KivAPIInstances, WithoutSetupBothInstancesAreThePublicOneWithNoToken) {
  EXPECT_FALSE(KivAPI::_appToken());
  EXPECT_EQ(KivAPI::_clientInstance(), KivAPI::_publicInstance());
  ASSERT_EQ(made.size(), 1u);
  EXPECT_EQ(made[0].authToken, "");
  EXPECT_EQ(made[0].identifier, "KivAPI_PublicInstance");

  kiv::KivReport report("R");
  report.slug = "S";
  KivAPI::update(report, [](auto, auto) {});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_FALSE(requests()[0].value("Authorization"));
}

TEST_F(KivAPIInstances, TheClientInstanceKeepsTheFirstToken) {
  KivAPI::setup("abc");
  EXPECT_EQ(KivAPI::_appToken(), "app-token abc");
  const auto client = KivAPI::_clientInstance();
  EXPECT_NE(client, KivAPI::_publicInstance());

  KivAPI::setup("xyz");
  EXPECT_EQ(KivAPI::_appToken(), "app-token xyz");
  EXPECT_EQ(KivAPI::_clientInstance(), client);
  ASSERT_EQ(made.size(), 2u);
  EXPECT_EQ(made[0].authToken, "app-token abc");
  EXPECT_EQ(made[0].identifier, "KivAPI_ClientInstance");

  kiv::KivReport report("R");
  report.slug = "S";
  KivAPI::forceStatusUpdate(report, [](auto, auto) {});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(requests()[0].value("Authorization"), "app-token abc");
}

TEST_F(KivAPIInstances, RacingFirstRequestsShareOneInstance) {
  KivAPI::setup("abc");
  std::vector<std::shared_ptr<zu::ZuNetworking>> seen(8);
  std::vector<std::thread> threads;
  threads.reserve(seen.size());
  for (auto& slot : seen) threads.emplace_back([&slot] { slot = KivAPI::_clientInstance(); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(std::set(seen.begin(), seen.end()).size(), 1u);
  EXPECT_EQ(made.size(), 1u);
}

struct Routing {
  std::string name;
  bool setUp;
  std::string identifier;
  std::optional<std::string> expectedInstance;  // nothing: the handler is dropped
  // Test names show the case name, not its bytes.
  friend void PrintTo(const Routing& value, std::ostream* out) { *out << value.name; }
};

class KivAPIBackgroundRouting : public FakeServiceTest, public ::testing::WithParamInterface<Routing> {};

TEST_P(KivAPIBackgroundRouting, HandlerLandsOnTheNamedInstanceWithItsSession) {
  const Routing& routing = GetParam();
  if (routing.setUp) KivAPI::setup("abc");
  int calls = 0;
  KivAPI::setBackgroundCompletionHandler([&calls] { ++calls; }, routing.identifier);
  if (!routing.expectedInstance) {
    EXPECT_TRUE(made.empty()) << "an unknown identifier touches nothing";
    EXPECT_TRUE(background.empty());
    return;
  }
  ASSERT_EQ(made.size(), 1u);
  EXPECT_EQ(made[0].identifier, *routing.expectedInstance);
  EXPECT_TRUE(background.count(*routing.expectedInstance)) << "the background session is made again";
  ASSERT_TRUE(made[0].networking->backgroundCompletionHandler());
  made[0].networking->backgroundCompletionHandler()();
  EXPECT_EQ(calls, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Identifiers, KivAPIBackgroundRouting,
    ::testing::Values(Routing{"Public", false, "KivAPI_PublicInstance", "KivAPI_PublicInstance"},
                      Routing{"ClientWithoutSetup", false, "KivAPI_ClientInstance", "KivAPI_PublicInstance"},
                      Routing{"ClientAfterSetup", true, "KivAPI_ClientInstance", "KivAPI_ClientInstance"},
                      Routing{"Unknown", true, "KivAPI_Other", std::nullopt},
                      Routing{"CaseMatters", true, "kivapi_publicinstance", std::nullopt}),
    [](const auto& info) { return info.param.name; });

TEST(KivAPIStandardType, TrustsTheLocalServiceCAOnlyInADefaultBuild) {
  const auto authorities = KivAPI::serviceCertificateAuthorityFile();
  const bool local = KivAPI::APIEndpoint::baseURL().starts_with("https://127.0.0.1:");
  EXPECT_EQ(authorities.has_value(), local);
  if (authorities) {
    EXPECT_TRUE(authorities->ends_with("/kiv-service/ca.pem")) << *authorities;
  }
}

}  // namespace

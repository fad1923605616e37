#include "KivSDK/API/KivUserProperties.hpp"

#include <gtest/gtest.h>

#include "AnyCodable/JSONSerialization.hpp"
#include "FakeService.hpp"

namespace {

using kiv::KivAPI;
using kiv::KivUserProperties;
using zu::ZuMailList;

std::string jsonText(const zu::AnyCodable::Dictionary& dict) {
  auto data = zu::JSONSerialization::data(dict);
  return std::string(data->begin(), data->end());
}

TEST(KivUserProperties, ServiceBodyCarriesThePhoneInEveryListAndNeverAtTheTop) {
  const KivUserProperties full("a@b.example", "+41 79", {ZuMailList("news", "News", true)});
  EXPECT_EQ(jsonText(full.dictionaryRepresentation()),
            R"({"mailing_lists":[{"name":"news","status":"subscribed","merge_fields":{"PHONE":"+41 79"}}],)"
            R"("email":"a@b.example"})");

  const KivUserProperties noPhone(std::nullopt, std::nullopt,
                                  {ZuMailList("news", "News", false), ZuMailList("news", "Again", true)});
  EXPECT_EQ(
      jsonText(noPhone.dictionaryRepresentation()),
      R"({"mailing_lists":[{"name":"news","status":"unsubscribed"},{"name":"news","status":"subscribed"}]})");
  EXPECT_EQ(noPhone.subscriptionsDictionary(), (std::map<std::string, bool>{{"news", true}}));

  const KivUserProperties noLists("a@b.example", "1", {});
  EXPECT_EQ(jsonText(noLists.dictionaryRepresentation()), R"({"mailing_lists":[],"email":"a@b.example"})");
}

TEST(KivUserProperties, StoredFormRoundTripsAndRefusesWrongTypes) {
  const KivUserProperties properties("a@b.example", std::nullopt, {ZuMailList("news", "Monthly news", true)});
  EXPECT_EQ(
      jsonText(properties.encoded()),
      R"({"email":"a@b.example","mailingLists":[{"name":"news","description":"Monthly news","subscribed":true}]})");
  EXPECT_EQ(KivUserProperties::decoded(properties.encoded()), properties);

  using zu::AnyCodable;
  EXPECT_FALSE(KivUserProperties::decoded({{"email", 3}, {"mailingLists", AnyCodable::Array{}}}));
  EXPECT_FALSE(KivUserProperties::decoded({{"email", "a@b.example"}}));
  EXPECT_FALSE(KivUserProperties::decoded(
      {{"mailingLists", AnyCodable::Array{AnyCodable::Dictionary{{"name", "news"}, {"subscribed", true}}}}}));
  EXPECT_EQ(ZuMailList("n", "d", false).statusString(), "unsubscribed");
  EXPECT_NE(ZuMailList("n", "d", false), ZuMailList("n", "other", false));
}

using KivAPINewsletters = kivtest::FakeServiceTest;

TEST_F(KivAPINewsletters, PostsThePropertiesAndPassesTheServiceVerdictOn) {
  const KivUserProperties properties("a@b.example", "+41 79", {ZuMailList("news", "News", true)});
  struct Case {
    std::string body;
    std::optional<bool> value;
    std::string_view message;
  };
  for (const Case& expected :
       {Case{R"({"success": true})", true, ""}, Case{R"({"success": false})", false, ""},
        Case{R"({"success": "yes"})", false, "Response JSON dictionary is missing 'success' value"},
        Case{"{}", false, "Response JSON dictionary is missing 'success' value"}}) {
    answer = [&](const zu::URLRequest&) { return kivtest::json(200, expected.body); };
    kivtest::SuccessOutcome outcome;
    KivAPI::updateNewsletters(properties, "fr", outcome.completion());
    ASSERT_EQ(outcome.calls, 1) << expected.body;
    EXPECT_EQ(outcome.value, expected.value) << expected.body;
    EXPECT_EQ(outcome.message(), expected.message) << expected.body;
    EXPECT_EQ(outcome.error.has_value(), !expected.message.empty()) << "false from the service is no error";
  }
  const zu::URLRequest& sent = requests().back();
  EXPECT_EQ(sent.httpMethod, "POST");
  EXPECT_TRUE(sent.url.absoluteString().ends_with("/v1/newsletter/"));
  EXPECT_EQ(sent.value("Accept-Language"), "fr");
  EXPECT_EQ(kivtest::text(sent.httpBody), jsonText(properties.dictionaryRepresentation()));

  kivtest::SuccessOutcome noEmail;
  KivAPI::updateNewsletters(KivUserProperties(std::nullopt, "1", {}), "fr", noEmail.completion());
  EXPECT_EQ(noEmail.message(), "Email properties for request are missing mandatory 'email' value");
  EXPECT_EQ(requests().size(), 4u) << "nothing sent without an e-mail";
}

}  // namespace

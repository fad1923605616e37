// Compact JWS as the provenance documents use it: what a reader refuses, and the two signature schemes.
#include "KivSDK/Provenance/detail/JWS.hpp"

#include <gtest/gtest.h>

#include "KivSDK/Provenance/detail/Base64Url.hpp"
#include "KivSDK/Provenance/detail/OpenSSL.hpp"
#include "support/CertificateMaker.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using kiv::detail::base64UrlEncode;
using kiv::detail::readJWS;

std::string part(std::string_view json) { return base64UrlEncode(json); }

const std::string kHeader = part(R"({"alg":"EdDSA"})");
const std::string kPayload = part(R"({"a":1})");
const std::string kSignature = base64UrlEncode(zu::Data(64, 7));

struct Refused {
  const char* name;
  std::string text;
};

class RefusedJWS : public ::testing::TestWithParam<Refused> {};

TEST_P(RefusedJWS, IsNotRead) {
  const auto read = readJWS(GetParam().text, "EdDSA");
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().localizedDescription().rfind("not a valid JWS: ", 0), 0u)
      << read.error().localizedDescription();
}

INSTANTIATE_TEST_SUITE_P(
    Texts, RefusedJWS,
    ::testing::Values(
        Refused{"two_parts", kHeader + "." + kPayload},
        Refused{"four_parts", kHeader + "." + kPayload + "." + kSignature + "."},
        Refused{"padded_signature", kHeader + "." + kPayload + "." + kSignature + "=="},
        Refused{"other_algorithm", part(R"({"alg":"ES256"})") + "." + kPayload + "." + kSignature},
        Refused{"no_algorithm", part(R"({"kid":"x"})") + "." + kPayload + "." + kSignature},
        Refused{"none_algorithm", part(R"({"alg":"none"})") + "." + kPayload + "."},
        Refused{"critical_header",
                part(R"({"alg":"EdDSA","crit":["exp"]})") + "." + kPayload + "." + kSignature},
        Refused{"header_not_canonical", part(R"({"alg": "EdDSA"})") + "." + kPayload + "." + kSignature},
        Refused{"payload_not_an_object", kHeader + "." + part("[1]") + "." + kSignature},
        Refused{"standard_base64", kHeader + "." + kPayload + "." + std::string(86, '+')}),
    [](const auto& info) { return info.param.name; });

TEST(JWS, EdDSASignaturesVerifyOnlyForTheirKeyAndInput) {
  testing_support::TemporaryDirectory folder;
  const auto key = kiv::DeviceKey::at((folder.path() / "key.pem").string());
  const auto other = kiv::DeviceKey::at((folder.path() / "other.pem").string());
  const auto jws = kiv::detail::writeJWS({{"alg", "EdDSA"}}, {{"a", 1}}, [&](std::string_view input) {
    return (*key)->sign(std::span(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()));
  });
  ASSERT_TRUE(jws);
  EXPECT_EQ(jws->substr(0, jws->rfind('.')), kHeader + "." + kPayload);
  const auto read = readJWS(*jws, "EdDSA");
  ASSERT_TRUE(read);
  const auto publicKey = kiv::detail::ed25519PublicKey((*key)->publicKey());
  EXPECT_TRUE(kiv::detail::verifyEd25519(publicKey.get(), read->signingInput, read->signature));
  EXPECT_FALSE(kiv::detail::verifyEd25519(publicKey.get(), read->signingInput + " ", read->signature));
  const auto otherKey = kiv::detail::ed25519PublicKey((*other)->publicKey());
  EXPECT_FALSE(kiv::detail::verifyEd25519(otherKey.get(), read->signingInput, read->signature));
  EXPECT_FALSE(kiv::detail::ed25519PublicKey(zu::Data(31, 1)));
}

TEST(JWS, ES256VerifiesTheRAndSFormOnP256Only) {
  const kiv::detail::PKey key = kivtest::newP256Key();
  const std::string jws = kivtest::signES256({{"alg", "ES256"}}, {{"a", 1}}, key.get());
  const auto read = readJWS(jws, "ES256");
  ASSERT_TRUE(read);
  ASSERT_EQ(read->signature.size(), 64u);
  EXPECT_TRUE(kiv::detail::verifyES256(key.get(), read->signingInput, read->signature));
  zu::Data flipped = read->signature;
  flipped[40] ^= 1;
  EXPECT_FALSE(kiv::detail::verifyES256(key.get(), read->signingInput, flipped));
  EXPECT_FALSE(kiv::detail::verifyES256(key.get(), read->signingInput,
                                        zu::Data(read->signature.begin(), read->signature.begin() + 63)));
  const kiv::detail::PKey p384(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384"));
  EXPECT_FALSE(kiv::detail::verifyES256(p384.get(), read->signingInput, read->signature));
}

}  // namespace

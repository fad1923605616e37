#include "support/ServiceUnderTest.hpp"

#include <cstdlib>
#include <filesystem>
#include <utility>

#include "AnyCodable/JSONSerialization.hpp"
#include "KivSDK/API/detail/APIState.hpp"

namespace kivtest {
namespace {

ServiceEnvironment* environment =
    static_cast<ServiceEnvironment*>(::testing::AddGlobalTestEnvironment(new ServiceEnvironment));

// One request to the service's administration routes, waited for.
void administer(const std::string& method, const std::string& route, const std::optional<std::string>& body) {
  const ServiceAddress& address = ServiceEnvironment::address();
  auto networking = std::make_shared<zu::ZuNetworking>(std::nullopt, "kivtest.admin");
  networking->set_URLSessionType(zu::ZuNetworking::URLSessionType::trusting(address.caFile));
  const auto url = *zu::URL::fromString(address.baseURL + "/admin/faults/" + route);
  Awaited<zu::AnyCodable> done;
  std::optional<zu::AnyCodable> fault;
  if (body) fault = zu::JSONSerialization::jsonObject(zu::Data(body->begin(), body->end())).value();
  networking->sendRequestAllowEmptyResponse(url, method, {}, fault, done.completion());
  ASSERT_TRUE(done.wait());
  ASSERT_FALSE(done.error()) << method << " " << route << ": " << done.errorText();
}

}  // namespace

void ServiceEnvironment::SetUp() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read before any test thread runs
  if (const char* fixture = std::getenv("KIV_SERVICE_FIXTURE")) {
    const auto address = ServiceAddress::read(fixture);
    ASSERT_TRUE(address) << "the kiv-service fixture in " << fixture << " did not start";
    address_ = *address;
    return;
  }
  dir_ = std::make_unique<testing_support::TemporaryDirectory>();
  own_ = std::make_unique<kiv::service::test::ServiceProcess>(dir_->path() / "data", testServiceOptions());
  own_->start();
  address_ = {own_->baseUrl(), own_->caFile().string(), kServiceToken, -1};
}

void ServiceEnvironment::TearDown() {
  own_.reset();
  dir_.reset();
}

const ServiceAddress& ServiceEnvironment::address() { return environment->address_; }

void setFault(const std::string& route, const std::string& fault) { administer("PUT", route, fault); }

void clearFault(const std::string& route) { administer("DELETE", route, std::nullopt); }

void useTestService() {
  const ServiceAddress& address = ServiceEnvironment::address();
  kiv::KivAPI::set_ZuNetworkingType(
      kiv::KivAPI::redirectedNetworkingType(address.baseURL, address.caFile).value());
}

void ServiceTest::SetUp() {
  kiv::detail::resetAPIState();
  useTestService();
  kiv::KivAPI::setup(ServiceEnvironment::address().token);
}

void ServiceTest::TearDown() {
  kiv::detail::resetAPIState();
  const std::filesystem::path documents = data.path() / "Documents";
  for (const auto& entry : std::filesystem::recursive_directory_iterator(data.path())) {
    if (!entry.is_regular_file()) continue;
    const std::filesystem::path folder = entry.path().parent_path();
    const bool allowed = folder == documents / "Kiv" || folder == documents / "PDFs" ||
                         folder.parent_path() == data.path() / "URLSessions" ||
                         folder == data.path() / "Provenance" ||
                         folder == data.path() / "Provenance" / "statements";
    EXPECT_TRUE(allowed) << entry.path() << " was written outside the media, PDF and provenance folders";
  }
}

kiv::KivFile ServiceTest::mediaFile(const std::string& name, std::string_view content, double dateTaken) {
  kiv::KivFile file(name, "jpg", zu::Date(dateTaken));
  testing_support::writeFile(file.fileURL().path(), content);
  return file.withCalculatedHash();
}

kiv::KivReport ServiceTest::sent(const kiv::KivReport& report) {
  Awaited<kiv::KivReport> outcome;
  kiv::KivAPI::send(report, "en", outcome.completion());
  EXPECT_TRUE(outcome.wait());
  EXPECT_TRUE(outcome.value()) << outcome.errorText();
  return outcome.value().value_or(report);
}

kiv::KivFile ServiceTest::uploaded(const kiv::KivFile& file, const kiv::KivReport& report) {
  Awaited<kiv::KivFile> outcome;
  kiv::KivAPI::uploadContent(file, report, outcome.completion());
  EXPECT_TRUE(outcome.wait());
  EXPECT_TRUE(outcome.value()) << outcome.errorText();
  return outcome.value().value_or(file);
}

kiv::KivReport::ProofStatus ServiceTest::checkedStatus(const kiv::KivReport& report) {
  Awaited<kiv::KivReport> outcome;
  kiv::KivAPI::forceStatusUpdate(report, outcome.completion());
  EXPECT_TRUE(outcome.wait());
  EXPECT_TRUE(outcome.value()) << outcome.errorText();
  return outcome.value() ? outcome.value()->proofStatus() : kiv::KivReport::ProofStatus::undefined;
}

}  // namespace kivtest

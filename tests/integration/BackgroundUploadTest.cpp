// An upload that one process starts and the next one finishes: the relaunched application hands the wake-up
// to KivAPI with a session identifier, and its handler runs once the journalled upload has been delivered.
#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "KivSDK/API/detail/APIState.hpp"
#include "support/ServiceUnderTest.hpp"

extern char** environ;

namespace {

using kiv::KivAPI;
using kivtest::Awaited;

// Runs the child to its end and answers its exit status; the child bounds its own run.
int runChild(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t child = -1;
  if (::posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class BackgroundUpload : public kivtest::ServiceTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(BackgroundUpload, FinishesInTheNextProcessAndCallsTheHandler) {
  kiv::KivReport report("Interrupted");
  report.files.push_back(mediaFile("20240503_080000", std::string(1 << 20, 'b'), 7.36e8));
  report = sent(report);
  const kiv::KivFile& file = report.files[0];

  // The child's upload waits at the service, so it is surely running when the child exits.
  kivtest::setFault("put", R"({"kind": "delay", "ms": 600000, "times": 1})");
  const kivtest::ServiceAddress& service = kivtest::ServiceEnvironment::address();
  EXPECT_EQ(runChild({KIV_BACKGROUND_UPLOAD_CHILD, data.path().string(), service.baseURL, service.caFile,
                      service.token, *report.slug, file.name, *file.slug,
                      std::to_string(file.dateTaken.timeIntervalSinceReferenceDate())}),
            0);
  kivtest::clearFault("put");

  // The relaunched application: nothing made yet, no token before the wake-up is handed over.
  kiv::detail::resetAPIState();
  KivAPI::set_ZuNetworkingType(KivAPI::redirectedNetworkingType(service.baseURL, service.caFile).value());
  Awaited<bool> handled;
  KivAPI::setBackgroundCompletionHandler([done = handled.completion()] { done(true, std::nullopt); },
                                         GetParam());
  ASSERT_TRUE(handled.wait());

  KivAPI::setup(service.token);
  EXPECT_EQ(checkedStatus(report), kiv::KivReport::ProofStatus::confirmed);
  EXPECT_EQ(handled.calls(), 1);
}

INSTANTIATE_TEST_SUITE_P(Identifiers, BackgroundUpload,
                         ::testing::Values("KivAPI_PublicInstance", "KivAPI_ClientInstance"),
                         [](const auto& info) { return std::string(info.param).substr(7); });

}  // namespace

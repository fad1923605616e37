#include <csignal>
#include <fstream>

#include <gtest/gtest-spi.h>

#include "support/ServiceProcess.hpp"
#include "support/TemporaryDirectory.hpp"

namespace kiv::service::test {
namespace {

TEST(ServiceProcessTest, AServiceThatCrashesOrReportsAFaultFailsTheTest) {
  const testing_support::TemporaryDirectory dir;
  ServiceProcess crashing(dir.path() / "crashing", {"--open"});
  crashing.start();
  ::kill(crashing.pid(), SIGSEGV);
  EXPECT_NONFATAL_FAILURE(crashing.stop(), "kiv-service ended with status");

  ServiceProcess reporting(dir.path() / "reporting", {"--open"});
  reporting.start();
  std::ofstream(reporting.logFile(), std::ios::app) << "==1==ERROR: AddressSanitizer: heap-use-after-free\n";
  EXPECT_NONFATAL_FAILURE(reporting.expectHealthy(), "AddressSanitizer: heap-use-after-free");
  EXPECT_NONFATAL_FAILURE(reporting.stop(), "kiv-service ended with status 0; its log:");
}

}  // namespace
}  // namespace kiv::service::test

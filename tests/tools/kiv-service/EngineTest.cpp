// What a node does when an engine is out of reach: at start it says which and how to fix it, and exits;
// while it runs it answers 503, stays up, and serves again once the engine is back.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <sys/wait.h>

#include "tools/kiv-service/ServiceFixture.hpp"

namespace kiv::service::test {
namespace {

std::string quoted(const std::string& text) { return "'" + text + "'"; }

struct Unreachable {
  const char* name;
  std::vector<std::string> arguments;
  std::vector<std::string> said;  ///< what the error must say
};

class UnreachableEngineAtStart : public ::testing::TestWithParam<Unreachable> {};

TEST_P(UnreachableEngineAtStart, StopsTheStartNamingTheEngineAndTheFix) {
  const TempDir dir;
  std::string command = "KIV_S3_ACCESS_KEY=key KIV_S3_SECRET_KEY=secret " + quoted(KIV_SERVICE_PROGRAM) +
                        " --data " + quoted(dir.path().string()) + " --port 0 --token t";
  for (const std::string& argument : GetParam().arguments) command += " " + quoted(argument);
  std::unique_ptr<FILE, decltype(&pclose)> pipe(popen((command + " 2>&1").c_str(), "r"), pclose);
  std::string output;
  char block[4096];
  while (std::size_t got = std::fread(block, 1, sizeof block, pipe.get())) output.append(block, got);
  const int status = pclose(pipe.release());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << output;
  for (const std::string& expected : GetParam().said)
    EXPECT_NE(output.find(expected), std::string::npos) << output;
  EXPECT_EQ(output.find("listening"), std::string::npos);
}

// Port 1 of the loopback address: nothing listens there, so a connection is refused at once.
INSTANTIATE_TEST_SUITE_P(
    Engines, UnreachableEngineAtStart,
    ::testing::Values(
        Unreachable{"Database",
                    {"--database", "postgresql://kiv@127.0.0.1:1/kiv"},
                    {"kiv-service: cannot reach the database at 127.0.0.1:1/kiv: ", "Connection refused",
                     "Start PostgreSQL there, or correct --database."}},
        Unreachable{"ObjectStore",
                    {"--s3-endpoint", "http://127.0.0.1:1", "--s3-bucket", "kiv"},
                    {"kiv-service: the object store at http://127.0.0.1:1 (bucket kiv) cannot be reached: ",
                     "Start the object store there, or correct --s3-endpoint, --s3-bucket and the keys in "
                     "KIV_S3_ACCESS_KEY and KIV_S3_SECRET_KEY."}}),
    [](const auto& info) { return std::string(info.param.name); });

// Stops or restarts one of the shared engines (scripts/engines.sh halt|resume).
void engines(const std::string& command, const std::string& engine) {
  const char* folder = std::getenv("KIV_ENGINES");  // NOLINT(concurrency-mt-unsafe): no thread writes it
  const std::string line = quoted(KIV_ENGINES_SCRIPT) + " " + command + " " + quoted(folder) + " " + engine;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the test's own thread is the only one that runs a command
  ASSERT_EQ(std::system(line.c_str()), 0) << line;
}

TEST_F(ServiceTest, AnEngineLostWhileRunningAnswers503UntilItIsBack) {
  if (!onSharedEngines()) GTEST_SKIP() << "SQLite and the data folder do not go away";
  const nlohmann::json report = createReport({{"IMG_1.jpg", "not uploaded yet"}});
  const std::string path = "/v1/reports/" + report["slug"].get<std::string>() + "/";
  const std::string ready = service().baseUrl() + "/ready";
  // A report with a file not yet proven makes the node look into the object store, too.
  for (const auto& [engine, detail] :
       {std::pair{"postgres", "The database is unavailable; try again shortly."},
        std::pair{"radosgw", "The content store is unavailable; try again shortly."}}) {
    engines("halt", engine);
    const Reply refused = call("GET", path);
    EXPECT_EQ(refused.status, 503) << engine;
    EXPECT_EQ(refused.detail(), detail);
    EXPECT_EQ(fetch("GET", ready).status, 503) << "a balancer takes the node out";
    engines("resume", engine);
    EXPECT_EQ(call("GET", path).status, 200) << "the node serves again once " << engine << " is back";
    EXPECT_EQ(fetch("GET", ready).status, 200);
  }
}

}  // namespace
}  // namespace kiv::service::test

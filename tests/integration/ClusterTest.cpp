// The service as several machines run it: two kiv-service nodes on the shared engines (PostgreSQL and the
// object gateway that the CTest fixture started), one certificate between them, haproxy in front; the SDK
// talks to the balancer only.
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <set>

#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "KivSDK/API/KivAPI.hpp"
#include "integration/ServiceUnderTest.hpp"
#include "support/PdfText.hpp"
#include "tools/kiv-service/Http.hpp"

extern char** environ;

namespace {

using kiv::KivAPI;
using kiv::KivReport;
using kiv::service::test::ServiceProcess;
using kiv::service::test::TempDir;
using kivtest::Awaited;
using Status = KivReport::ProofStatus;

constexpr auto kRejoinBound = std::chrono::seconds(60);

int freePort() {
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool bound = ::bind(probe, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                     ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(probe);
  if (!bound) throw std::runtime_error("no free loopback port");
  return ntohs(address.sin_port);
}

/**
 * Two nodes and the balancer. haproxy passes TLS through to the nodes (TCP mode), checks each node's /ready
 * over TLS against the service's CA every half second, and sends a connection that a node refuses to the
 * other one. Its statistics page says which nodes it counts as up.
 */
class Cluster {
 public:
  Cluster() {
    for (const char* name : {"a", "b"}) {
      nodes_.push_back(std::make_unique<ServiceProcess>(
          dir_.path() / name, std::vector<std::string>{"--token", kivtest::kServiceToken, "--tls",
                                                       (dir_.path() / "tls").string()}));
      nodes_.back()->start();
    }
    port_ = freePort();
    statsPort_ = freePort();
    writeConfiguration();
    std::vector<std::string> arguments{KIV_HAPROXY_PROGRAM, "-db", "-f",
                                       (dir_.path() / "haproxy.cfg").string()};
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    if (::posix_spawn(&haproxy_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
      throw std::runtime_error("cannot start haproxy");
    }
  }

  ~Cluster() {
    ::kill(haproxy_, SIGTERM);
    ::waitpid(haproxy_, nullptr, 0);
  }

  Cluster(const Cluster&) = delete;
  Cluster& operator=(const Cluster&) = delete;

  kivtest::ServiceAddress address() const {
    return {"https://127.0.0.1:" + std::to_string(port_), (dir_.path() / "tls" / "ca.pem").string(),
            kivtest::kServiceToken, haproxy_};
  }
  ServiceProcess& node(std::size_t index) { return *nodes_.at(index); }

  /// The nodes that haproxy counts as up, by name; waits until it has checked them all.
  std::set<std::string> upNodes() const {
    const auto reply = kiv::service::test::perform(
        {"GET", "http://127.0.0.1:" + std::to_string(statsPort_) + "/stats;csv", {}, false, {}}, {});
    std::set<std::string> up;
    std::istringstream lines(reply.body);
    for (std::string line; std::getline(lines, line);) {
      // pxname,svname,...,status,...: the servers of "nodes" whose status is UP (not "UP 1/2", going down)
      const std::string server = line.substr(6, line.find(',', 6) - 6);
      if (line.starts_with("nodes,") && server != "BACKEND" && line.find(",UP,") != std::string::npos) {
        up.insert(server);
      }
    }
    return up;
  }

  /// Waits, within a bound generous enough for a loaded machine, until haproxy counts `count` nodes as up.
  bool waitForUpNodes(std::size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + kRejoinBound;
    while (upNodes().size() != count) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(250));  // haproxy checks twice a second
    }
    return true;
  }

 private:
  void writeConfiguration() const {
    const std::string ca = (dir_.path() / "tls" / "ca.pem").string();
    std::ofstream(dir_.path() / "haproxy.cfg")
        << "global\n  maxconn 1024\n"
        << "defaults\n  mode tcp\n  timeout connect 5s\n  timeout client 120s\n  timeout server 120s\n"
        << "  retries 3\n  option redispatch\n"
        << "frontend kiv\n  bind 127.0.0.1:" << port_ << "\n  default_backend nodes\n"
        << "backend nodes\n  balance roundrobin\n  option httpchk GET /ready\n"
        << "  default-server check check-ssl verify required ca-file " << ca << " inter 500ms fall 2 rise 2\n"
        << "  server a 127.0.0.1:" << nodes_[0]->port() << "\n  server b 127.0.0.1:" << nodes_[1]->port()
        << "\n"
        << "listen stats\n  mode http\n  bind 127.0.0.1:" << statsPort_
        << "\n  stats enable\n  stats uri /stats\n";
  }

  TempDir dir_;
  std::vector<std::unique_ptr<ServiceProcess>> nodes_;
  int port_ = 0;
  int statsPort_ = 0;
  pid_t haproxy_ = -1;
};

Cluster* cluster = nullptr;

class ClusterTest : public kivtest::ServiceTest {
 protected:
  KivReport twoPhotos(const std::string& name) {
    KivReport report(name);
    report.files.push_back(mediaFile(name + "_1", std::string(1 << 20, 'k'), 7.36e8));
    report.files.push_back(mediaFile(name + "_2", "second photo", 7.36e8 + 300));
    return report.withCalculatedHash();
  }

  /// How many requests for `path` a node's log shows.
  static std::size_t served(ServiceProcess& node, const std::string& request) {
    const std::string log = node.log();
    std::size_t count = 0;
    for (std::size_t at = log.find(request); at != std::string::npos; at = log.find(request, at + 1)) ++count;
    return count;
  }
};

TEST_F(ClusterTest, TheWholeFlowGoesThroughTheBalancer) {
  KivReport report = sent(twoPhotos("Balanced"));
  ASSERT_TRUE(report.slug);
  for (kiv::KivFile& file : report.files) file = uploaded(file, report);
  EXPECT_EQ(checkedStatus(report), Status::confirmed);

  Awaited<bool> pdf;
  KivAPI::generatePDF(report, "en", pdf.completion());
  ASSERT_TRUE(pdf.wait());
  ASSERT_EQ(pdf.value(), true) << pdf.errorText();
  EXPECT_NE(testing_support::pdfText(report.pdfURL().path()).find(*report.files[0].hash), std::string::npos);

  for (const kiv::KivFile& file : report.files) {
    const std::string original = testing_support::readFile(file.fileURL().path());
    std::filesystem::remove(file.fileURL().path());
    Awaited<bool> download;
    KivAPI::downloadContent(file, download.completion());
    ASSERT_TRUE(download.wait());
    ASSERT_EQ(download.value(), true) << download.errorText();
    EXPECT_EQ(testing_support::readFile(file.fileURL().path()), original) << "straight from the object store";
  }
}

TEST_F(ClusterTest, ConcurrentReportsThroughBothNodesAreEachStoredOnce) {
  constexpr int kReports = 20;
  const std::size_t before = served(cluster->node(0), "\"POST /v1/reports/\" 201") +
                             served(cluster->node(1), "\"POST /v1/reports/\" 201");
  std::vector<std::shared_ptr<Awaited<KivReport>>> outcomes;
  for (int i = 0; i < kReports; ++i) {
    outcomes.push_back(std::make_shared<Awaited<KivReport>>());
    KivAPI::send(twoPhotos("Concurrent " + std::to_string(i)), "en", outcomes.back()->completion());
  }
  std::set<std::string> slugs;
  for (const auto& outcome : outcomes) {
    ASSERT_TRUE(outcome->wait());
    ASSERT_TRUE(outcome->value()) << outcome->errorText();
    slugs.insert(*outcome->value()->slug);
  }
  EXPECT_EQ(slugs.size(), static_cast<std::size_t>(kReports)) << "no slug given twice";
  const std::size_t createdByA = served(cluster->node(0), "\"POST /v1/reports/\" 201");
  const std::size_t createdByB = served(cluster->node(1), "\"POST /v1/reports/\" 201");
  EXPECT_EQ(createdByA + createdByB, before + kReports) << "each report created once";
  EXPECT_GT(createdByA, 0u);
  EXPECT_GT(createdByB, 0u);

  // Every node sees every report, whichever node stored it.
  for (const std::string& slug : slugs) {
    for (std::size_t node = 0; node < 2; ++node) {
      const auto reply =
          kiv::service::test::perform({"GET",
                                       cluster->node(node).baseUrl() + "/v1/reports/" + slug + "/",
                                       {},
                                       false,
                                       {std::string("Authorization: app-token ") + kivtest::kServiceToken}},
                                      cluster->address().caFile);
      EXPECT_EQ(reply.status, 200) << slug << " on node " << node;
    }
  }
}

TEST_F(ClusterTest, AFlowOutlivesANodeKilledInItsMiddleAndTheNodeRejoins) {
  KivReport report = sent(twoPhotos("Interrupted"));
  ASSERT_TRUE(report.slug);
  cluster->node(0).kill();

  // The SDK's connections to the killed node break; a host tries an operation again, and the balancer sends
  // it to the node that is left.
  for (kiv::KivFile& file : report.files) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      Awaited<kiv::KivFile> outcome;
      KivAPI::uploadContent(file, report, outcome.completion());
      ASSERT_TRUE(outcome.wait());
      if (outcome.value()) {
        file = *outcome.value();
        break;
      }
    }
    ASSERT_TRUE(file.remoteUrl) << file.name << " was not uploaded";
  }
  Awaited<KivReport> status;
  for (int attempt = 0; attempt < 3 && !status.value(); ++attempt) {
    status = {};
    KivAPI::forceStatusUpdate(report, status.completion());
    ASSERT_TRUE(status.wait());
  }
  ASSERT_TRUE(status.value()) << status.errorText();
  EXPECT_EQ(status.value()->proofStatus(), Status::confirmed);
  EXPECT_EQ(status.value()->files.size(), 2u) << "no file lost or doubled";
  EXPECT_EQ(status.value()->slug, report.slug);

  ASSERT_TRUE(cluster->waitForUpNodes(1)) << "the balancer did not notice the killed node";
  cluster->node(0).start();
  ASSERT_TRUE(cluster->waitForUpNodes(2)) << "the restarted node did not rejoin";
  const std::size_t before = served(cluster->node(0), "\"GET /v1/reports/");
  for (int request = 0; request < 4; ++request) {  // new connections, so the balancer takes turns
    const auto reply =
        kiv::service::test::perform({"GET",
                                     cluster->address().baseURL + "/v1/reports/" + *report.slug + "/",
                                     {},
                                     false,
                                     {std::string("Authorization: app-token ") + kivtest::kServiceToken}},
                                    cluster->address().caFile);
    EXPECT_EQ(reply.status, 200);
  }
  EXPECT_GT(served(cluster->node(0), "\"GET /v1/reports/"), before) << "the rejoined node serves again";
}

// Starts the cluster, then the tests against it; answers the exit status.
int runAgainstCluster() {
  // The cluster stands in for the test service: its balancer is the address the tests' SDK talks to.
  Cluster nodes;
  cluster = &nodes;
  const TempDir fixture;
  nodes.address().write(fixture.path());
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet
  ::setenv("KIV_SERVICE_FIXTURE", fixture.path().c_str(), 1);
  if (!nodes.waitForUpNodes(2)) {
    static_cast<void>(std::fprintf(stderr, "haproxy did not count both nodes as up\n"));
    return 1;
  }
  return RUN_ALL_TESTS();
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (!kiv::service::test::onSharedEngines()) {
    static_cast<void>(std::fprintf(
        stderr, "KIV_ENGINES must name the shared engines' folder (CTest's kiv_engines fixture)\n"));
    return 1;
  }
  try {
    return runAgainstCluster();
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "the cluster did not start: %s\n", error.what()));
    return 1;
  }
}

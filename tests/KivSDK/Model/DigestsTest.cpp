#include <gtest/gtest.h>

#include "KivSDK/Model/KivReport.hpp"
#include "ZuDigest/ZuDigest.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using kiv::KivFile;
using kiv::KivReport;

const zu::Date kTen = zu::Date(600000000.0);
const std::string kEmptyDigest = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class Digests : public ::testing::Test {
 protected:
  KivFile storedFile(const std::string& name, std::string_view bytes) {
    KivFile file(name, "jpg", kTen);
    testing_support::writeFile(file.fileURL().path(), bytes);
    return file;
  }

  testing_support::ScopedApplicationData data_;
};

TEST_F(Digests, FileDigestIsTheContentsSha256AndIsNeverRecomputed) {
  const KivFile file = storedFile("a", "abc");
  const KivFile hashed = file.withCalculatedHash();
  EXPECT_EQ(hashed.hash, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  testing_support::writeFile(file.fileURL().path(), "changed");
  EXPECT_EQ(hashed.withCalculatedHash().hash, hashed.hash);
  EXPECT_FALSE(KivFile("missing", "jpg", kTen).withCalculatedHash().hash);
}

TEST_F(Digests, ReportDigestIgnoresFileOrderAndCarriesTheFileDigests) {
  KivReport report("r");
  report.files = {storedFile("a", "one"), storedFile("b", "two"), storedFile("c", "three"),
                  KivFile("missing", "jpg", kTen)};
  const KivReport hashed = report.withCalculatedHash();
  ASSERT_TRUE(hashed.hash);
  EXPECT_TRUE(hashed.files[0].hash && hashed.files[1].hash && hashed.files[2].hash);
  EXPECT_FALSE(hashed.files[3].hash);

  std::vector<std::string> digests{*hashed.files[0].hash, *hashed.files[1].hash, *hashed.files[2].hash};
  std::sort(digests.begin(), digests.end());
  EXPECT_EQ(hashed.hash, zu::hexString(zu::sha256(digests[0] + digests[1] + digests[2])));

  KivReport reversed = report;
  std::reverse(reversed.files.begin(), reversed.files.end());
  EXPECT_EQ(reversed.withCalculatedHash().hash, hashed.hash);
}

TEST_F(Digests, ReportWithoutLocalFilesGetsTheDigestOfNothing) {
  KivReport report("r");
  report.files = {KivFile("gone", "jpg", kTen)};
  EXPECT_EQ(report.withCalculatedHash().hash, kEmptyDigest);
  EXPECT_EQ(KivReport("empty").withCalculatedHash().hash, kEmptyDigest);
}

}  // namespace

// File statements and the statements file of a report.
#include "KivSDK/Provenance/FileStatement.hpp"

#include <gtest/gtest.h>

#include "KivSDK/Provenance/KivProvenance.hpp"
#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "KivSDK/Provenance/ReportStatements.hpp"
#include "KivSDK/Provenance/detail/Base64Url.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;
using kiv::FileStatement;
using testing_support::readFile;

kiv::KivFile hashedFile(const std::string& name, const std::string& digest) {
  kiv::KivFile file(name, "jpg", zu::Date(7.3e8));
  file.hash = digest;
  return file;
}

class Statements : public ::testing::Test {
 protected:
  testing_support::ScopedApplicationData data;
  std::shared_ptr<kiv::DeviceKey> key = *kiv::DeviceKey::at((data.path() / "key.pem").string());
};

TEST_F(Statements, AreCanonicalJWSOfTheFilesNameDigestAndDatesByTheDeviceKey) {
  const auto statement =
      FileStatement::about(hashedFile("20230218_120000", "ab12"), key->keyId(), zu::Date(7.3e8 + 61));
  ASSERT_TRUE(statement);
  const auto jws = statement->sign(*key);
  ASSERT_TRUE(jws);
  const std::string id = key->keyId();
  EXPECT_EQ(jws->substr(0, jws->find('.')), kiv::detail::base64UrlEncode(R"({"alg":"EdDSA","kid":")" + id +
                                                                         R"(","typ":"kiv-file-statement"})"));
  EXPECT_EQ(jws->substr(jws->find('.') + 1, jws->rfind('.') - jws->find('.') - 1),
            kiv::detail::base64UrlEncode(
                R"({"date_taken":"2024-02-19T01:46:40Z","file_name":"20230218_120000.jpg","key_id":")" + id +
                R"(","sha256":"ab12","signed_at":"2024-02-19T01:47:41Z"})"));
  EXPECT_EQ(FileStatement::read(*jws).value(), *statement);
  EXPECT_EQ(FileStatement::verify(*jws, key->publicKey()).value(), *statement);
}

TEST_F(Statements, VerifyFailsForAnotherKeyAForgedPayloadOrAnUnhashedFile) {
  const auto jws = FileStatement::about(hashedFile("a", "ab12"), key->keyId(), zu::Date(0))->sign(*key);
  const auto other = *kiv::DeviceKey::at((data.path() / "other.pem").string());
  EXPECT_EQ(FileStatement::verify(*jws, other->publicKey()).error().localizedDescription(),
            "the statement is signed by another key");

  FileStatement forged = *FileStatement::read(*jws);
  forged.sha256 = "cd34";
  const std::string forgedPayload = kiv::detail::base64UrlEncode(
      R"({"date_taken":")" + forged.dateTaken + R"(","file_name":"a.jpg","key_id":")" + forged.keyId +
      R"(","sha256":"cd34","signed_at":")" + forged.signedAt + R"("})");
  const std::string swapped =
      jws->substr(0, jws->find('.') + 1) + forgedPayload + jws->substr(jws->rfind('.'));
  const auto verified = FileStatement::verify(swapped, key->publicKey());
  ASSERT_FALSE(verified);
  EXPECT_EQ(verified.error().code(), kiv::ProvenanceError::signatureInvalid);

  EXPECT_EQ(forged.sign(*other).error().code(), kiv::ProvenanceError::deviceKeyUnavailable);
  const auto unhashed =
      FileStatement::about(kiv::KivFile("b", "mp4", zu::Date(0)), key->keyId(), zu::Date(0));
  EXPECT_EQ(unhashed.error().localizedDescription(),
            "b.mp4 has no digest yet: calculate it before signing a statement");
}

TEST_F(Statements, AreKeptPerReportReplacingThoseOfTheSameFile) {
  const zu::UUID report;
  EXPECT_TRUE(kiv::ReportStatements::load(report)->empty());
  ASSERT_TRUE(kiv::ReportStatements::add(report, {{"a.jpg", "one"}, {"b.jpg", "two"}}));
  ASSERT_TRUE(kiv::ReportStatements::add(report, {{"a.jpg", "three"}}));
  EXPECT_EQ(*kiv::ReportStatements::load(report),
            (kiv::ReportStatements::Statements{{"a.jpg", "three"}, {"b.jpg", "two"}}));
  const fs::path path = kiv::ReportStatements::path(report);
  EXPECT_EQ(path, data.path() / "Provenance" / "statements" / (report.uuidString() + ".json"));
  EXPECT_EQ(readFile(path), R"({"statements":{"a.jpg":"three","b.jpg":"two"}})");
  EXPECT_TRUE(kiv::ReportStatements::remove(report));
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(kiv::ReportStatements::remove(report));
}

TEST_F(Statements, ADamagedFileIsReportedAndNeverOverwritten) {
  const zu::UUID report;
  ASSERT_TRUE(kiv::ReportStatements::add(report, {{"a.jpg", "one"}}));
  for (const std::string& damage :
       {std::string(R"({"statements":{"a.jpg":1}})"), std::string(R"({"other":{}})"),
        std::string("{\"statements\": {}}"), std::string("\x00\x01", 2)}) {
    testing_support::writeFile(kiv::ReportStatements::path(report), damage);
    EXPECT_FALSE(kiv::ReportStatements::load(report)) << damage;
    const auto added = kiv::ReportStatements::add(report, {{"b.jpg", "two"}});
    ASSERT_FALSE(added);
    EXPECT_NE(added.error().localizedDescription().find("is damaged"), std::string::npos);
    EXPECT_EQ(readFile(kiv::ReportStatements::path(report)), damage);
  }
}

TEST_F(Statements, SigningForAReportStoresOneStatementPerFileOrNoneAtAll) {
  kiv::KivReport report("Kitchen");
  report.files = {hashedFile("a", "aa"), hashedFile("b", "bb")};
  const auto signedAll = kiv::KivProvenance::signStatements(report, report.files);
  ASSERT_TRUE(signedAll) << signedAll.error().localizedDescription();
  EXPECT_EQ(*kiv::ReportStatements::load(*report.id), *signedAll);
  EXPECT_EQ(FileStatement::read(signedAll->at("b.jpg"))->sha256, "bb");

  const kiv::KivFile unhashed("c", "jpg", zu::Date(0));
  EXPECT_FALSE(kiv::KivProvenance::signStatements(report, {hashedFile("a", "changed"), unhashed}));
  EXPECT_EQ(*kiv::ReportStatements::load(*report.id), *signedAll) << "nothing is stored when one file fails";
}

// A host's signer that cannot sign: a hardware key that is locked.
class LockedSigner : public kiv::DeviceSigner {
 public:
  explicit LockedSigner(zu::Data publicKey) : publicKey_(std::move(publicKey)) {}
  zu::Data publicKey() const override { return publicKey_; }
  zu::Result<zu::Data> sign(std::span<const std::uint8_t>) const override {
    return kiv::ProvenanceError::make(kiv::ProvenanceError::deviceKeyUnavailable, "the token is locked");
  }

 private:
  zu::Data publicKey_;
};

struct Import {
  const char* label;
  bool move;
  bool signerLocked;
};

class SignedImport : public Statements, public ::testing::WithParamInterface<Import> {
 protected:
  void TearDown() override { kiv::KivProvenance::setDeviceSigner(nullptr); }
};

TEST_P(SignedImport, KeepsTheFileWithItsStatementOrNeither) {
  const fs::path source = data.path() / "leak.jpg";
  testing_support::writeFile(source, "drops on the floor");
  if (GetParam().signerLocked)
    kiv::KivProvenance::setDeviceSigner(std::make_shared<LockedSigner>(key->publicKey()));
  const kiv::KivReport report("Kitchen");
  const kiv::MediaImportOptions options{.move = GetParam().move, .dateTaken = std::nullopt};
  const auto imported = kiv::KivProvenance::importSignedMediaFile(zu::URL::fileURLWithPath(source.string()),
                                                                  report, {}, options);
  const auto media = [] {
    return std::distance(fs::directory_iterator(kiv::KivFile::kivDirectory().path()),
                         fs::directory_iterator());
  };

  if (GetParam().signerLocked) {
    ASSERT_FALSE(imported);
    EXPECT_EQ(imported.error().localizedDescription(),
              source.string() + " was not taken in: its statement could not be signed (the token is locked)");
    EXPECT_EQ(readFile(source), "drops on the floor") << "the file is back where it was";
    EXPECT_EQ(media(), 0);
    EXPECT_TRUE(kiv::ReportStatements::load(*report.id)->empty());
    return;
  }
  ASSERT_TRUE(imported) << imported.error().localizedDescription();
  EXPECT_EQ(fs::exists(source), !GetParam().move);
  EXPECT_EQ(readFile(imported->file.fileURL().path()), "drops on the floor");
  const auto stored = kiv::ReportStatements::load(*report.id);
  EXPECT_EQ(
      *stored,
      (kiv::ReportStatements::Statements{{FileStatement::wireName(imported->file), imported->statement}}));
  const auto statement =
      FileStatement::verify(imported->statement, (*kiv::KivProvenance::deviceSigner())->publicKey());
  ASSERT_TRUE(statement);
  EXPECT_EQ(statement->sha256, imported->file.hash);
}

INSTANTIATE_TEST_SUITE_P(Imports, SignedImport,
                         ::testing::Values(Import{"copied", false, false}, Import{"moved", true, false},
                                           Import{"copy_unsigned", false, true},
                                           Import{"move_unsigned", true, true}),
                         [](const auto& info) { return std::string(info.param.label); });

TEST_F(Statements, AReportWithoutIdTakesNothingIn) {
  const fs::path source = data.path() / "leak.jpg";
  testing_support::writeFile(source, "drops");
  kiv::KivReport report("Old");
  report.id.reset();
  const auto imported =
      kiv::KivProvenance::importSignedMediaFile(zu::URL::fileURLWithPath(source.string()), report, {});
  ASSERT_FALSE(imported);
  EXPECT_EQ(imported.error().localizedDescription(),
            "The report Old has no id, so no statements can be kept for it");
  EXPECT_TRUE(fs::is_empty(kiv::KivFile::kivDirectory().path()));
}

}  // namespace

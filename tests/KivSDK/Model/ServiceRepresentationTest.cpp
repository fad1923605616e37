#include <gtest/gtest.h>

#include "AnyCodable/JSONSerialization.hpp"
#include "KivSDK/Model/KivReport.hpp"

namespace {

using kiv::KivFile;
using kiv::KivReport;
using zu::AnyCodable;
using Dictionary = AnyCodable::Dictionary;

// 2020-03-01 23:30:00 UTC
const zu::Date kWhen = zu::Date::fromTimeIntervalSince1970(1583105400.0);

std::vector<std::string> keys(const Dictionary& dict) {
  std::vector<std::string> names;
  for (const auto& [key, value] : dict) names.push_back(key);
  return names;
}

std::string json(const Dictionary& dict) {
  const auto data = zu::JSONSerialization::data(dict);
  return std::string(data->begin(), data->end());
}

// A report with every field set and one file with every field set; the file is named `fileName`.`ext`.
KivReport fullReport(const std::string& fileName, const std::string& ext) {
  KivReport report("Claim");
  report.created = kWhen;
  report.note = "n";
  report.hash = "h";
  report.slug = "r-1";
  report.email = "e@example.org";
  report.certificationRequestedDate = kWhen;
  report.setMetadata(Dictionary{{"a", Dictionary{{"b", 1}}}});
  KivFile file(fileName, ext, kWhen);
  file.hash = "fh";
  file.slug = "f-1";
  file.description = "d";
  file.remoteUrl = zu::URL::fromString("https://storage/x");
  file.setMetadata(Dictionary{{"iso", 200}});
  report.files = {file};
  return report;
}

TEST(ServiceRepresentation, MinimalReportWritesThreeKeys) {
  KivReport report("Claim");
  report.created = kWhen;
  EXPECT_EQ(json(report.dictionaryRepresentation()),
            R"({"name":"Claim","original_created_at":"2020-03-01T23:30:00Z","provable_files":[]})");
}

TEST(ServiceRepresentation, FullRecordsWriteEveryKeyInOrder) {
  const Dictionary dict = fullReport("IMG_0001", "jpg").dictionaryRepresentation();
  EXPECT_EQ(keys(dict), (std::vector<std::string>{"name", "original_created_at", "provable_files", "note",
                                                  "hash", "slug", "email", "meta_data"}));
  EXPECT_EQ(*dict.find("meta_data"), AnyCodable(Dictionary{{"a", Dictionary{{"b", "1"}}}}));
  const Dictionary& fileDict = *dict.find("provable_files")->arrayValue()->front().dictionaryValue();
  EXPECT_EQ(
      json(fileDict),
      R"({"file_name":"IMG_0001.jpg","original_created_at":"2020-03-01T23:30:00Z","hash":"fh","slug":"f-1",)"
      R"("description":"d","meta_data":{"iso":"200"}})");
}

TEST(ServiceRepresentation, RecordsRoundTripThroughServiceJson) {
  KivReport report = fullReport("IMG.0001", "jpeg");
  const KivFile file = report.files.front();
  report.files.emplace_back("clip", "mov", kWhen.addingTimeInterval(60));

  auto text = zu::JSONSerialization::data(report.dictionaryRepresentation());
  auto parsed = zu::JSONSerialization::jsonObject(*text);
  const auto read = KivReport::fromKivAPIResponseDict(*parsed->dictionaryValue());
  ASSERT_TRUE(read);
  EXPECT_FALSE(read->id);
  EXPECT_EQ(read->name, "Claim");
  EXPECT_EQ(read->created, kWhen);
  EXPECT_EQ(read->note, "n");
  EXPECT_EQ(read->hash, "h");
  EXPECT_EQ(read->slug, "r-1");
  EXPECT_EQ(read->metadata(), report.metadata());
  ASSERT_EQ(read->files.size(), 2U);
  const KivFile& first = read->files[0];
  EXPECT_EQ(first.name, "IMG.0001");  // split at the last dot
  EXPECT_EQ(first.ext, "jpeg");
  EXPECT_EQ(first.fileType, KivFile::FileType::image);
  EXPECT_EQ(first.dateTaken, kWhen);
  EXPECT_EQ(first.hash, "fh");
  EXPECT_EQ(first.slug, "f-1");
  EXPECT_EQ(first.description, "d");
  EXPECT_EQ(first.metadata(), file.metadata());
  EXPECT_EQ(read->files[1].fileType, KivFile::FileType::video);
}

TEST(ServiceRepresentation, ReadersAreTolerantOfWhatTheyCanSkip) {
  const zu::Date before = zu::Date::now().addingTimeInterval(-1);
  const auto report = KivReport::fromKivAPIResponseDict(Dictionary{
      {"name", "R"},
      {"status", "Confirmed"},
      {"note", 5},
      {"original_created_at", "2020-03-01T23:30:00"},
      {"provable_files",
       AnyCodable::Array{Dictionary{{"file_name", "ok.jpg"}, {"file", ""}, {"slug", AnyCodable::Array{}}},
                         Dictionary{{"file_name", 3}}, "not an object",
                         Dictionary{{"file_name", "noext"}, {"file", "https://storage/noext"}}}}});
  ASSERT_TRUE(report);
  EXPECT_EQ(report->proofStatus(), KivReport::ProofStatus::undefined);
  EXPECT_FALSE(report->note);
  EXPECT_GE(report->created, before);   // unreadable date: now
  ASSERT_EQ(report->files.size(), 2U);  // bad elements dropped alone
  EXPECT_FALSE(report->files[0].remoteUrl);
  EXPECT_FALSE(report->files[0].slug);
  EXPECT_EQ(report->files[1].name, "noext");
  EXPECT_EQ(report->files[1].ext, "");
  EXPECT_EQ(report->files[1].remoteUrl, zu::URL::fromString("https://storage/noext"));
  EXPECT_EQ(KivReport::fromKivAPIResponseDict(Dictionary{{"name", "R"}, {"status", "failed"}})->proofStatus(),
            KivReport::ProofStatus::failed);
}

TEST(ServiceRepresentation, ReadersRejectMissingOrHostileNames) {
  EXPECT_FALSE(KivReport::fromKivAPIResponseDict(Dictionary{}));
  EXPECT_FALSE(KivReport::fromKivAPIResponseDict(Dictionary{{"name", 1}}));
  for (auto name : {"", "..", "a/b", "../../x"}) {
    EXPECT_FALSE(KivReport::fromKivAPIResponseDict(Dictionary{{"name", name}})) << name;
  }
  EXPECT_FALSE(KivFile::fromKivAPIResponseDict(Dictionary{}));
  for (auto fileName : {"", "../../x", "a/b", "../x.jpg", "x.a/b", ".jpg"}) {
    EXPECT_FALSE(KivFile::fromKivAPIResponseDict(Dictionary{{"file_name", fileName}})) << fileName;
  }
}

}  // namespace

#include "KivSDK/Model/KivModel.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ZuDigest/ZuDigest.hpp"
#include "ZuUserDefaults/ZuUserDefaults.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using kiv::KivFile;
using kiv::KivModel;
using kiv::KivReport;
using testing_support::readFile;
using testing_support::ScopedApplicationData;
using testing_support::writeFile;
using zu::AnyCodable;
using zu::Date;

const auto kId = *zu::UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");

auto storedFields(const KivFile& f) {
  return std::tie(f.name, f.description, f.ext, f.fileType, f.dateTaken, f.slug, f._metadata, f.hash,
                  f.remoteUrl, f._lastFileUploadAttemptDate);
}

// Every stored field, where the records' own == compares identities only.
bool sameStoredFields(const KivReport& a, const KivReport& b) {
  const auto head = [](const KivReport& r) {
    return std::tie(r.id, r.name, r.created, r.note, r.slug, r.certificationRequestedDate, r._metadata,
                    r.hash, r.email, r._proofStatusInt);
  };
  if (head(a) != head(b) || a.files.size() != b.files.size()) return false;
  for (std::size_t i = 0; i < a.files.size(); ++i) {
    if (storedFields(a.files[i]) != storedFields(b.files[i])) return false;
  }
  return true;
}

bool sameLists(const std::vector<KivReport>& a, const std::vector<KivReport>& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), sameStoredFields);
}

KivReport fullReport() {
  KivReport report("Evidence");
  report.id = kId;
  report.created = Date(700000000.25);
  report.note = "Café ☕ 𝄞";
  KivFile file("IMG_0001", "jpg", Date(700000001.5));
  file.description = "front door";
  file.slug = "f-1";
  file.setMetadata(AnyCodable::Dictionary{{"camera", AnyCodable::Dictionary{{"iso", 200}}}, {"a.b", "x"}});
  file.hash = "abc";
  file.remoteUrl = zu::URL::fromString("https://storage.example/f-1");
  file._lastFileUploadAttemptDate = Date(700000002);
  report.files = {file};
  report.slug = "r-1";
  report.certificationRequestedDate = Date(700000003);
  report.hash = "def";
  report.email = "a@b.c";
  report._proofStatusInt = 1;
  return report;
}

// Unsorted, with a repeated report, microsecond and negative dates and a bare report without an id.
std::vector<KivReport> sampleList(int variant) {
  KivReport bare("Bare " + std::to_string(variant));
  bare.id.reset();
  bare.created = Date(-0.5);
  KivReport precise("Precise");
  precise.created = Date(785000000.123457);
  precise.files = {KivFile("clip", "mov", Date(-1234.000001)), KivFile("clip", "mov", Date(12.999999))};
  precise.setMetadata(AnyCodable::Dictionary{{"k", AnyCodable::Dictionary{}}, {"v", true}});
  std::vector<KivReport> list{fullReport(), bare, precise, fullReport()};
  list.erase(list.begin() + 2 + variant % 3, list.end());
  return list;
}

class KivModelTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(KivModel::loadFromStore().empty()); }  // writes version 5

  static std::optional<zu::Data> storedBytes() {
    return zu::ZuUserDefaults::standard().data(KivModel::Const::UD::reports);
  }
  static void storeBytes(std::string_view bytes) {
    ASSERT_TRUE(zu::ZuUserDefaults::standard().set(zu::Data(bytes.begin(), bytes.end()),
                                                   KivModel::Const::UD::reports));
  }

  ScopedApplicationData appData_;
};

TEST(KivModelVersion, FirstLaunchAndOtherVersionsStartEmptyWithVersion5) {
  ScopedApplicationData appData;
  auto& defaults = zu::ZuUserDefaults::standard();
  EXPECT_TRUE(KivModel::loadFromStore().empty());
  EXPECT_EQ(defaults.integer("Kiv.ModelManager.Const.UD.version"), 5);

  KivModel::persist({fullReport()});
  ASSERT_EQ(KivModel::loadFromStore().size(), 1u);
  ASSERT_TRUE(defaults.set(4, "Kiv.ModelManager.Const.UD.version"));
  EXPECT_TRUE(KivModel::loadFromStore().empty());
  EXPECT_FALSE(defaults.data("Kiv.ModelManager.Const.UD.reports"));  // discarded, not kept for later
  EXPECT_EQ(defaults.integer("Kiv.ModelManager.Const.UD.version"), 5);
}

TEST_F(KivModelTest, KeepsEveryFieldAndTheOrderAsGiven) {
  const auto list = sampleList(1);
  KivModel::persist(list);
  const auto loaded = KivModel::loadFromStore();
  EXPECT_TRUE(sameLists(loaded, list));
  ASSERT_EQ(loaded.size(), 3u);
  EXPECT_EQ(loaded[1].created, Date(-0.5));

  // Loading and persisting again changes nothing, byte for byte.
  const auto bytes = storedBytes();
  KivModel::persist(loaded);
  EXPECT_EQ(storedBytes(), bytes);

  KivModel::persist({});
  ASSERT_TRUE(storedBytes());  // an empty list is stored, not removed
  EXPECT_TRUE(KivModel::loadFromStore().empty());
}

// `count` different reports sharing some texts, with metadata of every kind.
std::vector<KivReport> pinnedList(int count) {
  std::vector<KivReport> list;
  for (int i = 0; i < count; ++i) {
    KivReport report = fullReport();
    report.name = "Evidence " + std::to_string(i % 7);
    report.created = Date(700000000.25 + i);
    report.files.push_back(KivFile("Käse " + std::to_string(i), "mov", Date(-i)));
    report._metadata =
        zu::FlatMetadata{{{"n"}, AnyCodable(i)},
                         {{"r"}, AnyCodable(0.5 * i)},
                         {{"b", "€"}, AnyCodable(i % 2 == 0)},
                         {{"a"}, AnyCodable(AnyCodable::Array{"x", i, AnyCodable()})},
                         {{"d"}, AnyCodable(AnyCodable::Dictionary{{"k", "v"}, {"when", Date(1e8)}})}};
    list.push_back(report);
  }
  return list;
}

// The stored bytes are the platform encoder's: pinned by their digests for one report, for enough to need
// references of 2 bytes, and of 4.
TEST_F(KivModelTest, StoredBytesStayAsTheyAre) {
  const std::pair<int, std::string_view> pinned[] = {
      {1, "a4ffefa75c163c3486f31480de6eb2cbb4e1443adc0a15358afa562a00f71ff3"},
      {300, "418f049833ec64de827b87ab20f6738b3a58bcb2139ffe528658c14dc96e29fa"},
      {2500, "40113f138b322fc9a2bd8d849ad9f88feb99f214bfdc6832570899bb880433b0"}};
  for (const auto& [count, digest] : pinned) {
    KivModel::persist(pinnedList(count));
    const auto bytes = storedBytes();
    ASSERT_TRUE(bytes);
    EXPECT_EQ(zu::hexString(zu::sha256(*bytes)), digest) << count << " reports";
  }
}

TEST_F(KivModelTest, TextThatIsNotUtf8IsStoredWithReplacementCharacters) {
  KivReport report("Bad \xFF byte");
  KivModel::persist({report});
  const auto loaded = KivModel::loadFromStore();
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0].name, "Bad \uFFFD byte");
}

TEST_F(KivModelTest, FailedEncodeRemovesTheStoredList) {
  KivModel::persist({fullReport()});
  KivReport unstorable("Unstorable");
  unstorable._metadata = zu::FlatMetadata{{{"k"}, AnyCodable::opaque(std::vector<int>{1})}};
  KivModel::persist({fullReport(), unstorable});
  EXPECT_FALSE(storedBytes());
  EXPECT_TRUE(KivModel::loadFromStore().empty());
}

std::string xmlReports(const std::string& reportBody) {
  return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><array><dict>)"
         "<key>name</key><string>R</string><key>created</key><date>2021-01-01T00:00:00Z</date>" +
         reportBody + "</dict></array></plist>";
}

struct DecodeCase {
  const char* label;
  std::string reportBody;  // after "name" and "created"
  bool decodes;
};

class KivModelDecodeTest : public KivModelTest, public ::testing::WithParamInterface<DecodeCase> {};

// An undecodable list loads as empty but keeps its bytes for the next persist to overwrite.
TEST_P(KivModelDecodeTest, StrictOnTypesTolerantOfExtras) {
  const std::string bytes = xmlReports(GetParam().reportBody);
  storeBytes(bytes);
  EXPECT_EQ(KivModel::loadFromStore().size(), GetParam().decodes ? 1u : 0u);
  EXPECT_EQ(storedBytes(), zu::Data(bytes.begin(), bytes.end()));
}

const std::string kFiles = "<key>files</key><array/>";
const std::string kStatus = "<key>_proofStatusInt</key><integer>0</integer>";
const std::string kFile =
    "<key>name</key><string>a</string><key>ext</key><string>jpg</string>"
    "<key>dateTaken</key><date>2021-01-01T00:00:00Z</date>";

INSTANTIATE_TEST_SUITE_P(
    Cases, KivModelDecodeTest,
    ::testing::Values(
        DecodeCase{"Minimal", kFiles + kStatus, true},
        DecodeCase{"UnknownKeyIgnored", kFiles + kStatus + "<key>future</key><string>x</string>", true},
        DecodeCase{"NullOptional", kFiles + kStatus + "<key>note</key><string>$null</string>", true},
        DecodeCase{"WholeRealAsInteger", kFiles + "<key>_proofStatusInt</key><real>2.0</real>", true},
        DecodeCase{"StatusAsText", kFiles + "<key>_proofStatusInt</key><string>0</string>", false},
        DecodeCase{"MissingFiles", kStatus, false},
        DecodeCase{"NoteAsInteger", kFiles + kStatus + "<key>note</key><integer>1</integer>", false},
        DecodeCase{"BadUUID", kFiles + kStatus + "<key>id</key><string>not-a-uuid</string>", false},
        DecodeCase{"UnknownFileType",
                   kStatus + "<key>files</key><array><dict>" + kFile +
                       "<key>fileType</key><integer>7</integer></dict></array>",
                   false},
        DecodeCase{"UrlAsText",
                   kStatus + "<key>files</key><array><dict>" + kFile +
                       "<key>fileType</key><integer>1</integer><key>remoteUrl</key><string>https://a.b/c</"
                       "string></dict></array>",
                   false},
        DecodeCase{"OddMetadata",
                   kFiles + kStatus + "<key>_metadata</key><array><array><string>k</string></array></array>",
                   false},
        DecodeCase{
            "MetadataDataValue",
            kFiles + kStatus +
                "<key>_metadata</key><array><array><string>k</string></array><data>AA==</data></array>",
            false}),
    [](const auto& info) { return std::string(info.param.label); });

struct MetadataCase {
  const char* label;
  std::string stored;  // one metadata value, as a property list element
  AnyCodable expected;
};

class KivModelMetadataTest : public KivModelTest, public ::testing::WithParamInterface<MetadataCase> {};

// Metadata values read with the kinds their JSON form would have, and keep them through a persist (a whole
// number beyond the signed range stays a real: as an unsigned integer it could not be stored again).
TEST_P(KivModelMetadataTest, ValuesReadAsTheirJsonKinds) {
  storeBytes(xmlReports(kFiles + kStatus + "<key>_metadata</key><array><array><string>k</string></array>" +
                        GetParam().stored + "</array>"));
  const zu::FlatMetadata expected{{{"k"}, GetParam().expected}};
  const auto loaded = KivModel::loadFromStore();
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0]._metadata, expected);
  KivModel::persist(loaded);
  EXPECT_EQ(KivModel::loadFromStore().at(0)._metadata, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, KivModelMetadataTest,
    ::testing::Values(MetadataCase{"Text", "<string>v</string>", AnyCodable("v")},
                      MetadataCase{"Null", "<string>$null</string>", AnyCodable()},
                      MetadataCase{"Boolean", "<true/>", AnyCodable(true)},
                      MetadataCase{"Integer", "<integer>-3</integer>", AnyCodable(-3)},
                      MetadataCase{"WholeReal", "<real>2.0</real>", AnyCodable(2)},
                      MetadataCase{"Fraction", "<real>2.5</real>", AnyCodable(2.5)},
                      MetadataCase{"WholeBeyondSigned", "<real>1e19</real>", AnyCodable(1e19)},
                      MetadataCase{"Array", "<array><string>a</string><integer>1</integer></array>",
                                   AnyCodable(AnyCodable::Array{"a", 1})},
                      MetadataCase{"Dictionary",
                                   "<dict><key>b</key><false/><key>a</key><real>0.5</real></dict>",
                                   AnyCodable(AnyCodable::Dictionary{{"b", false}, {"a", 0.5}})}),
    [](const auto& info) { return std::string(info.param.label); });

// A date among the metadata reads as its seconds, as a number does, and reads the same once written back.
TEST_F(KivModelTest, DateInMetadataReadsAsItsSecondsBeforeAndAfterAPersist) {
  storeBytes(xmlReports(kFiles + kStatus +
                        "<key>_metadata</key><array><array><string>taken</string></array>"
                        "<date>2021-01-01T00:00:00Z</date></array>"));
  const zu::FlatMetadata expected{{{"taken"}, zu::AnyCodable(std::int64_t{631152000})}};
  const auto loaded = KivModel::loadFromStore();
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0]._metadata, expected);
  KivModel::persist(loaded);
  EXPECT_EQ(KivModel::loadFromStore().at(0)._metadata, expected);
}

TEST_F(KivModelTest, BytesThatAreNoPropertyListLoadEmptyAndStay) {
  storeBytes("garbage");
  EXPECT_TRUE(KivModel::loadFromStore().empty());
  EXPECT_EQ(storedBytes(), zu::Data({'g', 'a', 'r', 'b', 'a', 'g', 'e'}));
}

// ---- Interchange with an independent reader and writer.

std::string run(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return output;
  char buffer[4096];
  while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, count);
  return ::pclose(pipe) == 0 ? output : "failed: " + output;
}

class KivModelInterchangeTest : public KivModelTest {
 protected:
  void SetUp() override {
    KivModelTest::SetUp();
    if (std::string_view(KIV_PYTHON3).ends_with("NOTFOUND")) GTEST_SKIP() << "python3 not found";
  }
  std::string python(const std::string& script, const std::string& arguments) {
    writeFile(appData_.path() / "script.py", script);
    return run(std::string(KIV_PYTHON3) + " " + (appData_.path() / "script.py").string() + " " + arguments);
  }
};

TEST_F(KivModelInterchangeTest, StoredListReadsAsThePlatformShape) {
  const std::string script = R"(
import datetime, json, plistlib, sys
EPOCH = datetime.datetime(2001, 1, 1)
def tagged(v):
    if isinstance(v, dict): return {k: tagged(x) for k, x in v.items()}
    if isinstance(v, list): return [tagged(x) for x in v]
    if isinstance(v, datetime.datetime): return {"date": (v - EPOCH).total_seconds()}
    if isinstance(v, bool): return v
    if isinstance(v, int): return {"int": v}
    if isinstance(v, float): return {"real": v}
    return v
with open(sys.argv[1], "rb") as f:
    reports = plistlib.load(f)
shape = json.dumps(tagged(reports[:1]), separators=(",", ":"), ensure_ascii=False)
sys.stdout.buffer.write(f"{shape} {len(reports)} {reports[-1]['name']}\n".encode())
)";
  KivModel::persist({fullReport()});
  const auto one = storedBytes();
  ASSERT_TRUE(one);
  const std::string text(one->begin(), one->end());
  EXPECT_EQ(text.substr(0, 8), "bplist00");
  writeFile(appData_.path() / "one.plist", text);
  const std::string dump = python(script, (appData_.path() / "one.plist").string());
  EXPECT_EQ(
      dump,
      R"([{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"Evidence","created":{"date":700000000.25},)"
      R"("note":"Café ☕ 𝄞","files":[{"name":"IMG_0001","description":"front door","ext":"jpg","fileType":{"int":1},)"
      R"("dateTaken":{"date":700000001.5},"slug":"f-1","_metadata":[["a.b"],"x",["camera","iso"],"200"],)"
      R"("hash":"abc","remoteUrl":{"relative":"https://storage.example/f-1"},)"
      R"("_lastFileUploadAttemptDate":{"date":700000002.0}}],"slug":"r-1",)"
      R"("certificationRequestedDate":{"date":700000003.0},"hash":"def","email":"a@b.c",)"
      R"("_proofStatusInt":{"int":1}}] 1 Evidence)"
      "\n");

  // Hundreds of reports: wider object references and long counts.
  std::vector<KivReport> many(300, fullReport());
  many.back().name = "Last";
  KivModel::persist(many);
  const auto bytes = storedBytes();
  writeFile(appData_.path() / "many.plist", std::string(bytes->begin(), bytes->end()));
  EXPECT_THAT(python(script, (appData_.path() / "many.plist").string()), ::testing::EndsWith("] 300 Last\n"));
}

TEST_F(KivModelInterchangeTest, ListWrittenElsewhereLoadsInBinaryAndXml) {
  for (const std::string format : {"FMT_BINARY", "FMT_XML"}) {
    SCOPED_TRACE(format);
    const auto path = appData_.path() / "written.plist";
    ASSERT_EQ(python(R"(
import datetime, plistlib, sys
at = lambda s: datetime.datetime(2001, 1, 1) + datetime.timedelta(seconds=s)
reports = [
    {"id": "e621e1f8-c36c-495a-93fc-0c247a3e6e5f", "name": "From elsewhere", "created": at(600000000),
     "files": [{"name": "clip", "ext": "mov", "fileType": 2, "dateTaken": at(600000001),
                "_metadata": [["k", "n"], "v"], "remoteUrl": {"relative": "https://s.example/c"}}],
     "_proofStatusInt": 3, "addedLater": True},
    {"name": "Second", "created": at(-10), "files": [], "_proofStatusInt": 0},
]
with open(sys.argv[1], "wb") as f:
    plistlib.dump(reports, f, fmt=getattr(plistlib, sys.argv[2]), sort_keys=False)
)",
                     path.string() + " " + format),
              "");
    storeBytes(readFile(path));
    const auto loaded = KivModel::loadFromStore();
    ASSERT_EQ(loaded.size(), 2u);
    EXPECT_EQ(loaded[0].id, kId);
    EXPECT_EQ(loaded[0].created, Date(600000000));
    EXPECT_EQ(loaded[0].proofStatus(), KivReport::ProofStatus::failed);
    ASSERT_EQ(loaded[0].files.size(), 1u);
    EXPECT_EQ(loaded[0].files[0].fileType, KivFile::FileType::video);
    EXPECT_EQ(loaded[0].files[0].remoteUrl, zu::URL::fromString("https://s.example/c"));
    EXPECT_EQ(loaded[0].files[0]._metadata, (zu::FlatMetadata{{{"k", "n"}, "v"}}));
    EXPECT_FALSE(loaded[1].id);
    EXPECT_EQ(loaded[1].created, Date(-10));
  }
}

// ---- Crashes and concurrent writers.

// Loads must always see one of the complete lists a writer persisted.
void expectOneOf(const std::vector<KivReport>& loaded, const std::vector<std::vector<KivReport>>& lists) {
  EXPECT_TRUE(
      std::any_of(lists.begin(), lists.end(), [&](const auto& list) { return sameLists(loaded, list); }))
      << loaded.size() << " reports loaded";
}

[[noreturn]] void persistForever(const std::vector<std::vector<KivReport>>& lists) {
  for (std::size_t i = 0;; ++i) KivModel::persist(lists[i % lists.size()]);
}

TEST_F(KivModelTest, KilledWriterLeavesTheOldOrTheNewList) {
  const std::vector<std::vector<KivReport>> lists{sampleList(0), sampleList(1), sampleList(2)};
  KivModel::persist(lists[0]);
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delayMicros(0, 4000);
  for (int round = 0; round < 50; ++round) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) persistForever(lists);
    std::this_thread::sleep_for(std::chrono::microseconds(delayMicros(random)));
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    expectOneOf(KivModel::loadFromStore(), lists);
  }
}

TEST_F(KivModelTest, ConcurrentWritersLeaveOneWritersCompleteList) {
  const std::vector<std::vector<KivReport>> lists{sampleList(0), sampleList(1)};
  KivModel::persist(lists[0]);
  std::vector<pid_t> children;
  for (const auto& list : lists) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int i = 0; i < 30; ++i) KivModel::persist(list);
      ::_exit(0);
    }
    children.push_back(child);
  }
  for (int i = 0; i < 20; ++i) expectOneOf(KivModel::loadFromStore(), lists);
  for (const pid_t child : children) ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  expectOneOf(KivModel::loadFromStore(), lists);
}

}  // namespace

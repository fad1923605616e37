// The C interface at its boundary: bad input gives a status and the SDK's message, never a crash; every
// completion runs exactly once; the records keep what the C++ API keeps.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/Model/KivFileImport.hpp"
#include "KivSDK/Model/KivReportList.hpp"
#include "ZuDigest/ZuDigest.hpp"
#include "kivsdk.h"
#include "support/TemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;

// Text that is not UTF-8: a lone continuation byte, an overlong "/", a surrogate.
const char* const kNotUtf8[] = {"bad\x80", "\xC0\xAF", "\xED\xA0\x80"};

std::string lastMessage() { return kiv_last_error() != nullptr ? kiv_last_error()->message : ""; }

// Takes a string the library returned, and frees it.
std::string own(char* text) {
  std::string value = text != nullptr ? text : "(null)";
  kiv_string_free(text);
  return value;
}

struct ArgumentCase {
  std::string name;
  std::function<kiv_status()> call;
  std::string message;
};

class BadArgument : public ::testing::TestWithParam<ArgumentCase> {};

TEST_P(BadArgument, FailsWithItsMessage) {
  EXPECT_EQ(GetParam().call(), KIV_ERROR_ARGUMENT);
  ASSERT_NE(kiv_last_error(), nullptr);
  EXPECT_EQ(lastMessage(), GetParam().message);
  EXPECT_STREQ(kiv_last_error()->domain, "NSPOSIXErrorDomain");
  EXPECT_EQ(kiv_last_error()->code, EINVAL);
}

char* out = nullptr;
size_t count = 0;
kiv_report* report = nullptr;
kiv_file* file = nullptr;

INSTANTIATE_TEST_SUITE_P(
    CApi, BadArgument,
    ::testing::Values(
        ArgumentCase{"NullReport", [] { return kiv_report_name(nullptr, &out); }, "report is NULL"},
        ArgumentCase{"NullFile", [] { return kiv_file_hash(nullptr, &out); }, "file is NULL"},
        ArgumentCase{"NullList", [] { return kiv_report_list_count(nullptr, &count); }, "list is NULL"},
        ArgumentCase{"NullResult", [] { return kiv_report_list_new(nullptr); }, "list is NULL"},
        ArgumentCase{"NullName", [] { return kiv_report_new(nullptr, &report); }, "name is NULL"},
        ArgumentCase{"NameNotUtf8", [] { return kiv_report_new(kNotUtf8[0], &report); },
                     "name is not valid UTF-8"},
        ArgumentCase{"OverlongNotUtf8", [] { return kiv_setup(kNotUtf8[1]); }, "token is not valid UTF-8"},
        ArgumentCase{"SurrogateNotUtf8", [] { return kiv_sha256_file(kNotUtf8[2], &out); },
                     "path is not valid UTF-8"},
        ArgumentCase{"NullBytes", [] { return kiv_sha256_bytes(nullptr, 3, &out); }, "bytes is NULL"},
        ArgumentCase{"NotADate", [] { return kiv_file_new("a", "jpg", 1.0 / 0.0, &file); },
                     "date_taken is not a finite number of seconds"},
        ArgumentCase{"UnknownFlags",
                     [] {
                       kiv_report* r = nullptr;
                       kiv_report_new("flags", &r);
                       const kiv_status status = kiv_import_media_file("/tmp/x.jpg", r, nullptr, 4, &file);
                       kiv_report_free(r);
                       return status;
                     },
                     "unknown import flags 4"},
        ArgumentCase{"IndexOutOfRange",
                     [] {
                       kiv_report_list* list = nullptr;
                       kiv_report_list_new(&list);
                       const kiv_status status = kiv_report_list_at(list, 0, &report);
                       kiv_report_list_free(list);
                       return status;
                     },
                     "no report at index 0"},
        ArgumentCase{"NullVerifierText",
                     [] {
                       kiv_verifier* verifier = nullptr;
                       return kiv_verifier_new(nullptr, &verifier);
                     },
                     "ca_pem is NULL"}),
    [](const auto& info) { return info.param.name; });

TEST(CApi, ErrorsCarryTheSdksMessages) {
  testing_support::ScopedApplicationData data;
  const std::string missing = (data.path() / "missing.jpg").string();

  char* hex = nullptr;
  EXPECT_EQ(kiv_sha256_file(missing.c_str(), &hex), KIV_ERROR_FILE);
  EXPECT_EQ(hex, nullptr);
  EXPECT_EQ(lastMessage(), zu::sha256OfFile(missing).error().localizedDescription());
  EXPECT_EQ(kiv_last_error()->code, ENOENT);

  kiv_report* report = nullptr;
  ASSERT_EQ(kiv_report_new("Water damage", &report), KIV_OK);
  kiv_file* file = nullptr;
  EXPECT_EQ(kiv_import_media_file(missing.c_str(), report, nullptr, KIV_IMPORT_COPY, &file), KIV_ERROR_FILE);
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(lastMessage(),
            kiv::importMediaFile(zu::URL::fileURLWithPath(missing), kiv::KivReport("Water damage"), {})
                .error()
                .localizedDescription());

  kiv_report* unnamed = nullptr;
  EXPECT_EQ(kiv_report_new("a/b", &unnamed), KIV_ERROR_FILE);
  EXPECT_EQ(lastMessage(), kiv::checkNewReportName({}, "a/b").error().localizedDescription());
  kiv_report_free(report);
}

TEST(CApi, LastErrorStaysUntilTheNextFailure) {
  char* hex = nullptr;
  EXPECT_EQ(kiv_report_name(nullptr, &hex), KIV_ERROR_ARGUMENT);
  ASSERT_EQ(kiv_sha256_bytes("abc", 3, &hex), KIV_OK);
  EXPECT_EQ(own(hex), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(lastMessage(), "report is NULL");
  ASSERT_EQ(kiv_sha256_bytes(nullptr, 0, &hex), KIV_OK) << "no bytes at all is a digest too";
  EXPECT_EQ(own(hex), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

// Counts a C completion's calls and keeps what the last one received.
struct Received {
  int calls = 0;
  kiv_status status = KIV_OK;
  std::string message;
  bool hadRecord = false;
};

void note(void* userData, bool hadRecord, const kiv_error* error) {
  auto* received = static_cast<Received*>(userData);
  ++received->calls;
  received->hadRecord = hadRecord;
  received->status = error != nullptr ? error->status : KIV_OK;
  received->message = error != nullptr ? error->message : "";
}

void onReport(const kiv_report* report, const kiv_error* error, void* userData) {
  note(userData, report != nullptr, error);
}
void onFile(const kiv_file* file, const kiv_error* error, void* userData) {
  note(userData, file != nullptr, error);
}
void onDone(int success, const kiv_error* error, void* userData) { note(userData, success != 0, error); }

struct OperationCase {
  std::string name;
  // Starts the operation on `report` (which may be NULL) with a completion that fills `received`.
  std::function<kiv_status(const kiv_report* report, Received* received)> start;
  // The same operation without completion.
  std::function<kiv_status(const kiv_report* report)> startWithoutCompletion;
};

class Operation : public ::testing::TestWithParam<OperationCase> {};

TEST_P(Operation, BadInputCallsTheCompletionOnceBeforeReturning) {
  Received received;
  EXPECT_EQ(GetParam().start(nullptr, &received), KIV_ERROR_ARGUMENT);
  EXPECT_EQ(received.calls, 1);
  EXPECT_EQ(received.status, KIV_ERROR_ARGUMENT);
  EXPECT_EQ(received.message, lastMessage());
  EXPECT_FALSE(received.hadRecord);

  EXPECT_EQ(GetParam().startWithoutCompletion(nullptr), KIV_ERROR_ARGUMENT);
  EXPECT_EQ(lastMessage(), "completion is NULL");
}

INSTANTIATE_TEST_SUITE_P(
    CApi, Operation,
    ::testing::Values(
        OperationCase{"Send", [](auto r, auto c) { return kiv_send(r, "en", onReport, c); },
                      [](auto r) { return kiv_send(r, "en", nullptr, nullptr); }},
        OperationCase{"UpdateStatus", [](auto r, auto c) { return kiv_update_status(r, onReport, c); },
                      [](auto r) { return kiv_update_status(r, nullptr, nullptr); }},
        OperationCase{"ForceStatusUpdate",
                      [](auto r, auto c) { return kiv_force_status_update(r, onReport, c); },
                      [](auto r) { return kiv_force_status_update(r, nullptr, nullptr); }},
        OperationCase{"Upload",
                      [](auto r, auto c) { return kiv_upload_content(nullptr, r, nullptr, onFile, c); },
                      [](auto r) { return kiv_upload_content(nullptr, r, nullptr, nullptr, nullptr); }},
        OperationCase{"Download",
                      [](auto, auto c) { return kiv_download_content(nullptr, nullptr, onDone, c); },
                      [](auto) { return kiv_download_content(nullptr, nullptr, nullptr, nullptr); }},
        OperationCase{"Pdf", [](auto r, auto c) { return kiv_generate_pdf(r, "en", onDone, c); },
                      [](auto r) { return kiv_generate_pdf(r, "en", nullptr, nullptr); }},
        OperationCase{"Certify",
                      [](auto r, auto c) { return kiv_certify(r, "en", 60, nullptr, onReport, c); },
                      [](auto r) { return kiv_certify(r, "en", 60, nullptr, nullptr, nullptr); }},
        OperationCase{"Statements", [](auto r, auto c) { return kiv_send_statements(r, onDone, c); },
                      [](auto r) { return kiv_send_statements(r, nullptr, nullptr); }},
        OperationCase{"Newsletters",
                      [](auto, auto c) {
                        const kiv_mail_list lists[] = {{"news", "\xff", 1}};
                        return kiv_update_newsletters("me@example.com", nullptr, lists, 1, "en", onDone, c);
                      },
                      [](auto) {
                        return kiv_update_newsletters("me@example.com", nullptr, nullptr, 0, "en", nullptr,
                                                      nullptr);
                      }}),
    [](const auto& info) { return info.param.name; });

TEST(CApi, TheSdksPreconditionFailuresReachTheCompletionOnce) {
  kiv_report* report = nullptr;
  ASSERT_EQ(kiv_report_new("Unsent", &report), KIV_OK);
  Received received;
  ASSERT_EQ(kiv_update_status(report, onReport, &received), KIV_OK);
  EXPECT_EQ(received.calls, 1) << "no slug: answered before the call returns";
  EXPECT_EQ(received.status, KIV_ERROR_SERVICE);

  std::string expected;
  kiv::KivAPI::update(kiv::KivReport("Unsent"), [&](auto, std::optional<zu::Error> error) {
    expected = error->localizedDescription();
  });
  EXPECT_EQ(received.message, expected);
  kiv_report_free(report);
}

TEST(CApi, RecordsRoundTripThroughTheStore) {
  testing_support::ScopedApplicationData data;
  const fs::path photo = data.path() / "leak.JPG";
  testing_support::writeFile(photo, "jpeg bytes");

  kiv_report_list* list = nullptr;
  ASSERT_EQ(kiv_store_load(&list), KIV_OK);
  kiv_report* report = nullptr;
  ASSERT_EQ(kiv_report_new("Kitchen", &report), KIV_OK);
  ASSERT_EQ(kiv_report_set_note(report, "under the sink"), KIV_OK);
  kiv_file* file = nullptr;
  char* statement = nullptr;
  ASSERT_EQ(kiv_import_signed_media_file(photo.c_str(), report, list, KIV_IMPORT_COPY, &file, &statement),
            KIV_OK)
      << lastMessage();
  EXPECT_EQ(std::count(statement, statement + std::strlen(statement), '.'), 2) << "a compact JWS";
  kiv_string_free(statement);
  ASSERT_EQ(kiv_report_add_file(report, file), KIV_OK);
  ASSERT_EQ(kiv_report_list_put(list, report), KIV_OK);
  ASSERT_EQ(kiv_report_list_put(list, report), KIV_OK) << "the same report replaces itself";
  ASSERT_EQ(kiv_store_persist(list), KIV_OK);
  kiv_report_list_free(list);

  char* path = nullptr;
  ASSERT_EQ(kiv_file_local_path(file, &path), KIV_OK);
  char* digest = nullptr;
  ASSERT_EQ(kiv_sha256_file(path, &digest), KIV_OK);
  kiv_string_free(path);

  ASSERT_EQ(kiv_store_load(&list), KIV_OK);
  size_t reports = 0;
  ASSERT_EQ(kiv_report_list_count(list, &reports), KIV_OK);
  ASSERT_EQ(reports, 1u);
  size_t index = 9;
  ASSERT_EQ(kiv_report_list_find(list, "Kitchen", &index), KIV_OK);
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(kiv_report_list_find(list, "Attic", &index), KIV_ERROR_FILE);
  EXPECT_EQ(lastMessage(), "no report \"Attic\"");
  EXPECT_EQ(kiv_report_list_check_new_name(list, "Kitchen"), KIV_ERROR_FILE);

  kiv_report* stored = nullptr;
  ASSERT_EQ(kiv_report_list_at(list, 0, &stored), KIV_OK);
  char* text = nullptr;
  ASSERT_EQ(kiv_report_note(stored, &text), KIV_OK);
  EXPECT_EQ(own(text), "under the sink");
  ASSERT_EQ(kiv_report_slug(stored, &text), KIV_OK);
  EXPECT_EQ(text, nullptr) << "not sent yet";
  kiv_file* storedFile = nullptr;
  ASSERT_EQ(kiv_report_file_at(stored, 0, &storedFile), KIV_OK);
  ASSERT_EQ(kiv_file_hash(storedFile, &text), KIV_OK);
  EXPECT_EQ(own(text), own(digest));
  ASSERT_EQ(kiv_file_extension(storedFile, &text), KIV_OK);
  EXPECT_EQ(own(text), "jpg");
  ASSERT_EQ(kiv_file_description(storedFile, &text), KIV_OK);
  EXPECT_EQ(own(text), "leak.JPG");
  kiv_file_kind kind = KIV_FILE_UNKNOWN;
  ASSERT_EQ(kiv_file_type(storedFile, &kind), KIV_OK);
  EXPECT_EQ(kind, KIV_FILE_IMAGE);

  EXPECT_EQ(kiv_import_media_file(photo.c_str(), stored, list, KIV_IMPORT_COPY, &file), KIV_ERROR_FILE);
  EXPECT_EQ(kiv_last_error()->code, EEXIST) << "the report holds that content already";

  ASSERT_EQ(kiv_report_list_remove(list, 0), KIV_OK);
  EXPECT_EQ(kiv_report_list_remove(list, 0), KIV_ERROR_ARGUMENT);
  for (kiv_file* each : {file, storedFile}) kiv_file_free(each);
  kiv_report_free(stored);
  kiv_report_free(report);
  kiv_report_list_free(list);
}

}  // namespace

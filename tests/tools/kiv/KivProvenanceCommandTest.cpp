// kiv's provenance end to end: statements signed when files are added and on demand, sent with the report,
// and the service's signed certificate checked offline, as people and scripts read the result.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ToolCommand.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

namespace fs = std::filesystem;
using kivtest::ToolRun;
using nlohmann::json;
using testing_support::writeFile;

class KivProvenance : public kivtest::ToolCommand {
 protected:
  /// A report of two files added with kiv, sent, uploaded and confirmed; answers its certificate's path.
  fs::path certifiedReport(const std::string& name) {
    const std::string id = reportWith(
        name, {mediaFileNamed("leak.jpg", std::string(70000, 'l')), mediaFileNamed("clip.mp4", "clip")});
    const json sent = ok({"send", id});
    EXPECT_EQ(sent["statements"].size(), 2u) << sent;
    ok({"upload", id});
    EXPECT_EQ(ok({"status", id, "--force", "--wait", "60"})["status"], "confirmed");
    const ToolRun pdf = kiv({"pdf", id});
    EXPECT_EQ(pdf.exitCode, 0) << pdf.err;
    return pdf.out.substr(0, pdf.out.size() - 1);
  }

  /// The report's media, copied to a folder of their own for a third party to check.
  fs::path mediaCopy(const std::string& report) {
    fs::path copy = folder.path() / ("copy of " + report);
    fs::create_directories(copy);
    const json shown = ok({"report", "show", report});
    for (const auto& file : shown["files"])
      fs::copy_file(file["path"].get<std::string>(), copy / file["name"].get<std::string>());
    return copy;
  }
};

TEST_F(KivProvenance, AddedFilesAreSignedSentAndTheirCertificateHoldsOffline) {
  const fs::path pdf = certifiedReport("Kitchen");
  const fs::path media = mediaCopy("Kitchen");
  const ToolRun run = kiv({"--json", "verify", "--offline", pdf.string(), media.string()});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const json document = run.document();
  EXPECT_EQ(document["verified"], true);
  EXPECT_EQ(document["report"], "Kitchen");
  EXPECT_EQ(document["issuer"]["name"], "kiv-service");
  std::vector<std::string> names;
  for (const auto& check : document["checks"]) {
    names.push_back(check["name"]);
    EXPECT_EQ(check["passed"], true) << check;
  }
  ASSERT_EQ(names.size(), 8u);
  EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + 4),
            (std::vector<std::string>{"pdf-signature", "pdf-coverage", "manifest-signature", "timestamp"}));

  // The human form: the verdict, then every check on a line of its own.
  const ToolRun human = kiv({"verify", "--offline", pdf.string(), media.string()});
  EXPECT_EQ(human.exitCode, 0);
  EXPECT_NE(human.out.find(pdf.string() + ": verified (report \"Kitchen\""), std::string::npos) << human.out;
  for (const std::string& name : names)
    EXPECT_NE(human.out.find("\n  ok    " + name + ": "), std::string::npos) << name << "\n" << human.out;

  // Sent again once confirmed, the report keeps the statements its manifest holds.
  const ToolRun again = kiv({"send", "Kitchen"});
  EXPECT_EQ(again.exitCode, 0) << again.err;
  EXPECT_NE(again.out.find("status confirmed, its device statements in its manifest"), std::string::npos)
      << again.out;
}

TEST_F(KivProvenance, AChangedOrMissingFileFailsItsCheckAndExitsOne) {
  const fs::path pdf = certifiedReport("Garage");
  const fs::path media = mediaCopy("Garage");
  const std::string changed = ok({"report", "show", "Garage"})["files"][0]["name"];
  writeFile(media / changed, "not the photo that was certified");
  const fs::path missing = media / ok({"report", "show", "Garage"})["files"][1]["name"].get<std::string>();
  fs::remove(missing);

  const ToolRun run = kiv({"--json", "verify", "--offline", pdf.string(), media.string()});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.err, "kiv: verification of " + pdf.string() + " failed: file:" + changed +
                         ", file:" + missing.filename().string() + "\n");
  const json document = run.document();
  EXPECT_EQ(document["verified"], false);
  for (const auto& check : document["checks"]) {
    const bool caught =
        check["name"] == "file:" + changed || check["name"] == "file:" + missing.filename().string();
    EXPECT_EQ(check["passed"], !caught) << check;
  }
}

TEST_F(KivProvenance, SigningOnDemandNeedsTheFilesAsTheyWereAdded) {
  const std::string id = reportWith("Hall", {mediaFileNamed("a.jpg", "one"), mediaFileNamed("b.jpg", "two")});
  const json signedFiles = ok({"sign", id});
  EXPECT_EQ(signedFiles["signed"].size(), 2u);
  EXPECT_EQ(signedFiles["keyId"].get<std::string>().size(), 64u);

  const std::string changed = ok({"report", "show", id})["files"][1]["name"];
  writeFile(mediaFolder(data()) / changed, "changed");
  const ToolRun refused = kiv({"sign", id});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.err, "kiv: no statements signed for Hall; " + changed +
                             " changed since it was added (kiv verify names them)\n");
}

struct Misuse {
  const char* label;
  std::vector<std::string> arguments;  ///< after "verify"; "PDF" is an existing file
  int exitCode;
  const char* message;
};

void PrintTo(const Misuse& misuse, std::ostream* out) { *out << misuse.label; }

class KivOfflineMisuse : public kivtest::ToolCommand, public ::testing::WithParamInterface<Misuse> {};

TEST_P(KivOfflineMisuse, ExitsWithItsCodeAndSaysWhy) {
  const fs::path pdf = folder.path() / "certificate.pdf";
  writeFile(pdf, "%PDF-1.7\nnot much of a certificate\n");
  writeFile(folder.path() / "not-a-ca.pem", "no certificate here");
  std::vector<std::string> arguments = {"verify"};
  for (std::string argument : GetParam().arguments) {
    if (argument == "PDF") argument = pdf.string();
    if (argument.starts_with("FOLDER/")) argument = (folder.path() / argument.substr(7)).string();
    arguments.push_back(argument);
  }
  const ToolRun run = kiv(arguments);
  EXPECT_EQ(run.exitCode, GetParam().exitCode) << run.err;
  EXPECT_NE(run.err.find(GetParam().message), std::string::npos) << run.err;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, KivOfflineMisuse,
    ::testing::Values(
        Misuse{"no_report", {}, 2, "kiv: verify takes one REPORT (or --offline CERTIFICATE.pdf [FILE...])\n"},
        Misuse{"two_reports", {"Kitchen", "Hall"}, 2, "verify takes one REPORT"},
        Misuse{"no_certificate",
               {"--offline"},
               2,
               "kiv: verify --offline takes CERTIFICATE.pdf [FILE or FOLDER...]\n"},
        Misuse{"certificate_missing", {"--offline", "FOLDER/gone.pdf"}, 2, "gone.pdf: it is not a file"},
        Misuse{"file_missing",
               {"--offline", "PDF", "FOLDER/gone.jpg"},
               2,
               "gone.jpg: there is no such file or folder"},
        Misuse{"ca_no_certificate",
               {"--offline", "PDF", "--ca", "FOLDER/not-a-ca.pem"},
               2,
               "holds no PEM certificate"},
        Misuse{"not_a_signed_pdf", {"--offline", "PDF"}, 1, "failed: pdf-signature, pdf-coverage"}),
    [](const auto& info) { return std::string(info.param.label); });

}  // namespace

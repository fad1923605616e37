// kiv sign and kiv verify --offline: device statements about a report's files, and signed certificates
// checked with no network.
#include <filesystem>
#include <string>
#include <vector>

#include "Commands.hpp"
#include "Documents.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "KivSDK/Provenance/ProvenanceVerifier.hpp"
#include "ReportStore.hpp"
#include "Statements.hpp"
#include "Waiter.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace kivcli {
namespace {

namespace fs = std::filesystem;

// A certificate is a few hundred KiB at most; the bound keeps a wrong path from filling the memory.
constexpr std::size_t kLargestCertificate = std::size_t{64} << 20;

// What became of a file since its digest was recorded, when it is no longer what the digest says.
std::optional<std::string> problemOf(const kiv::KivFile& file) {
  if (!file.hasLocalFile()) return fileName(file) + " is not on this device";
  kiv::KivFile fresh = file;
  fresh.hash.reset();
  if (!file.hash || fresh.withCalculatedHash().hash != file.hash)
    return fileName(file) + " changed since it was added";
  return std::nullopt;
}

// The CA that certificates must chain to: --ca, else the one the build trusts for its own service.
std::string certificateAuthority(const Context& context) {
  if (!context.ca.empty()) return context.ca;
  const auto builtIn = kiv::KivAPI::serviceCertificateAuthorityFile();
  if (builtIn && fs::exists(*builtIn)) return *builtIn;
  reject("no CA to check the certificate against: pass --ca CA.pem (the service's CA certificate)");
}

std::string readText(const std::string& path, const std::string& what) {
  if (!fs::is_regular_file(path)) reject("cannot read " + what + " " + path + ": it is not a file");
  const auto bytes = zu::detail::readWholeFile(path, kLargestCertificate);
  if (!bytes) fail("cannot read " + what + " " + path + ": " + bytes.error().localizedDescription());
  return {bytes->begin(), bytes->end()};
}

zu::AnyCodable::Dictionary verificationDocument(const std::string& certificate,
                                                const kiv::ProvenanceVerification& result) {
  zu::AnyCodable::Array checks;
  for (const kiv::ProvenanceCheck& check : result.checks) {
    checks.emplace_back(zu::AnyCodable::Dictionary{
        {"name", check.name}, {"passed", check.passed}, {"message", check.message}});
  }
  const auto textOrNull = [](const std::string& text) {
    return text.empty() ? zu::AnyCodable() : zu::AnyCodable(text);
  };
  return {{"certificate", certificate},
          {"verified", result.passed()},
          {"slug", textOrNull(result.slug)},
          {"report", textOrNull(result.reportName)},
          {"issuer", zu::AnyCodable::Dictionary{{"name", textOrNull(result.issuerName)},
                                                {"keyId", textOrNull(result.issuerKeyId)}}},
          {"issuedAt", textOrNull(result.issuedAt)},
          {"checks", std::move(checks)}};
}

std::string verificationText(const std::string& certificate, const kiv::ProvenanceVerification& result) {
  std::string text = certificate + ": " + (result.passed() ? "verified" : "NOT verified");
  if (!result.reportName.empty()) {
    text += " (report \"" + result.reportName + "\", " + result.slug + ", issued by " + result.issuerName +
            " on " + result.issuedAt + ")";
  }
  text += "\n";
  for (const kiv::ProvenanceCheck& check : result.checks) {
    text += std::string(check.passed ? "  ok    " : "  FAIL  ") + check.name + ": " + check.message + "\n";
  }
  return text;
}

}  // namespace

zu::AnyCodable::Array sendStatements(const Context& context, const kiv::KivReport& report) {
  if (!report.id) return {};
  const auto stored = kiv::ReportStatements::load(*report.id);
  if (!stored)
    fail("cannot read the statements of " + report.name + ": " + stored.error().localizedDescription());
  if (stored->empty()) return {};
  const auto held = awaitOne<std::optional<std::vector<kiv::KivProvenance::StatementReceipt>>>(
      context, "sending the device statements of " + report.name,
      [&](auto completion) { kiv::KivProvenance::sendStatements(report, std::move(completion)); });
  zu::AnyCodable::Array receipts;
  for (const auto& receipt : *held) {
    receipts.emplace_back(
        zu::AnyCodable::Dictionary{{"fileName", receipt.fileName}, {"keyId", receipt.keyId}});
  }
  return receipts;
}

void signReport(const Context& context, const std::string& selector) {
  const ReportStore store = ReportStore::load();
  const kiv::KivReport& report = store.find(selector);
  if (report.files.empty()) fail("report " + report.name + " has no files: add media with kiv add first");
  std::string problems;
  for (const kiv::KivFile& file : report.files) {
    if (const auto problem = problemOf(file)) problems += "; " + *problem;
  }
  // A device states only what it holds: a file that is gone or changed is not signed, nor is any other.
  if (!problems.empty())
    fail("no statements signed for " + report.name + problems + " (kiv verify names them)");
  const auto signedStatements = kiv::KivProvenance::signStatements(report, report.files);
  if (!signedStatements) fail("cannot sign statements: " + signedStatements.error().localizedDescription());
  const std::string keyId = (*kiv::KivProvenance::deviceSigner())->keyId();
  zu::AnyCodable::Array signedFiles;
  for (const kiv::KivFile& file : report.files) signedFiles.emplace_back(fileName(file));
  context.print({{"report", reportSummary(report)}, {"keyId", keyId}, {"signed", std::move(signedFiles)}},
                "signed statements about " + std::to_string(report.files.size()) + " file(s) of " +
                    report.name + " with device key " + keyId);
}

void verifyCertificate(const Context& context, const OfflineVerifyOptions& options) {
  const std::string caFile = certificateAuthority(context);
  const std::string pdf = readText(options.certificate, "the certificate");
  const auto verifier = kiv::ProvenanceVerifier::trusting(readText(caFile, "the CA certificate"));
  if (!verifier) reject("the CA file " + caFile + " holds no PEM certificate");
  for (const std::string& file : options.files) {
    if (!fs::exists(file)) reject("cannot check " + file + ": there is no such file or folder");
  }
  const kiv::ProvenanceVerification result = verifier->verify(
      std::span(reinterpret_cast<const std::uint8_t*>(pdf.data()), pdf.size()), options.files);
  context.print(verificationDocument(options.certificate, result),
                verificationText(options.certificate, result));
  if (result.passed()) return;
  std::string failed;
  for (const kiv::ProvenanceCheck& check : result.checks) {
    if (!check.passed) failed += (failed.empty() ? "" : ", ") + check.name;
  }
  fail("verification of " + options.certificate + " failed: " + failed);
}

}  // namespace kivcli

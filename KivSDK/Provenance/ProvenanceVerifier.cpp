#include "KivSDK/Provenance/ProvenanceVerifier.hpp"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <map>
#include <system_error>

#include "KivSDK/Provenance/FileStatement.hpp"
#include "KivSDK/Provenance/detail/Base64Url.hpp"
#include "KivSDK/Provenance/detail/DocumentChecks.hpp"
#include "ZuDigest/ZuDigest.hpp"

namespace kiv {

struct ProvenanceVerifier::Authorities {
  detail::Certificates certificates;
};

namespace {

namespace fs = std::filesystem;
using Dictionary = zu::AnyCodable::Dictionary;

std::string textAt(const Dictionary& object, std::string_view key) {
  const zu::AnyCodable* value = object.find(key);
  const std::string* text = value ? value->stringValue() : nullptr;
  return text ? *text : std::string();
}

const zu::AnyCodable::Array& arrayAt(const Dictionary& object, std::string_view key) {
  static const zu::AnyCodable::Array none;
  const zu::AnyCodable* value = object.find(key);
  return value && value->arrayValue() ? *value->arrayValue() : none;
}

// The device keys the manifest lists, by key id; an entry whose id is not its key's is left out.
std::map<std::string, zu::Data> deviceKeys(const Dictionary& manifest) {
  std::map<std::string, zu::Data> keys;
  for (const zu::AnyCodable& entry : arrayAt(manifest, "device_keys")) {
    const Dictionary* object = entry.dictionaryValue();
    if (!object) continue;
    const auto key = detail::base64UrlDecode(textAt(*object, "public_key"));
    if (key && detail::keyIdOf(*key) == textAt(*object, "key_id"))
      keys.emplace(textAt(*object, "key_id"), *key);
  }
  return keys;
}

// A file of the manifest: its name, digest and statement (empty when it has none).
struct ManifestFile {
  std::string name;
  std::string sha256;
  std::string statement;
};

std::vector<ManifestFile> manifestFiles(const Dictionary& manifest) {
  std::vector<ManifestFile> files;
  for (const zu::AnyCodable& entry : arrayAt(manifest, "files")) {
    if (const Dictionary* object = entry.dictionaryValue()) {
      files.push_back(
          {textAt(*object, "file_name"), textAt(*object, "sha256"), textAt(*object, "statement")});
    }
  }
  return files;
}

ProvenanceCheck statementCheck(const ManifestFile& file, const std::map<std::string, zu::Data>& keys) {
  ProvenanceCheck check{"statement:" + file.name, false, ""};
  if (file.statement.empty()) {
    check.message = "no device statement: nothing shows which device captured this file";
    return check;
  }
  const auto claimed = FileStatement::read(file.statement);
  if (!claimed) {
    check.message = claimed.error().localizedDescription();
    return check;
  }
  const auto key = keys.find(claimed->keyId);
  if (key == keys.end()) {
    check.message =
        "signed by key " + claimed->keyId + ", which is not among the manifest's registered device keys";
    return check;
  }
  const auto statement = FileStatement::verify(file.statement, key->second);
  if (!statement) {
    check.message = statement.error().localizedDescription();
  } else if (statement->fileName != file.name) {
    check.message = "the statement is about " + statement->fileName + ", not this file";
  } else if (statement->sha256 != file.sha256) {
    check.message = "the statement states SHA-256 " + statement->sha256 + ", the manifest " + file.sha256;
  } else {
    check.passed = true;
    check.message = "signed by device key " + statement->keyId + " on " + statement->signedAt + ", taken " +
                    statement->dateTaken;
  }
  return check;
}

// The given paths as files by name: a folder stands for the regular files directly in it.
std::map<std::string, std::vector<fs::path>> givenFiles(const std::vector<std::string>& paths) {
  std::map<std::string, std::vector<fs::path>> files;
  for (const std::string& path : paths) {
    std::error_code error;
    if (!fs::is_directory(path, error)) {
      files[fs::path(path).filename().string()].emplace_back(path);
      continue;
    }
    for (const auto& entry : fs::directory_iterator(path, error)) {
      if (entry.is_regular_file(error)) files[entry.path().filename().string()].push_back(entry.path());
    }
  }
  return files;
}

ProvenanceCheck fileCheck(const std::string& name, const std::string& digest,
                          const std::vector<fs::path>& copies) {
  ProvenanceCheck check{"file:" + name, false, ""};
  if (copies.empty()) {
    check.message = "missing: the manifest lists it, but it is not among the given files";
    return check;
  }
  for (const fs::path& copy : copies) {
    const auto actual = zu::sha256OfFile(copy.string());
    if (!actual) {
      check.message = "cannot read " + copy.string() + ": " + actual.error().localizedDescription();
      return check;
    }
    if (zu::hexString(*actual) != digest) {
      check.message = copy.string() + " has SHA-256 " + zu::hexString(*actual) + ", the manifest " + digest;
      return check;
    }
  }
  check.passed = true;
  check.message = "SHA-256 " + digest + " as in the manifest";
  return check;
}

void addFileChecks(ProvenanceVerification& result, const std::vector<ManifestFile>& files,
                   std::map<std::string, std::vector<fs::path>> given) {
  for (const ManifestFile& file : files) {
    const auto copies = given.extract(file.name);
    result.checks.push_back(
        fileCheck(file.name, file.sha256, copies ? copies.mapped() : std::vector<fs::path>()));
  }
  for (const auto& [name, copies] : given) {
    result.checks.push_back(
        {"file:" + name, false, copies.front().string() + " is not a file of the manifest"});
  }
}

void describe(ProvenanceVerification& result, const Dictionary& manifest) {
  result.slug = textAt(manifest, "slug");
  result.reportName = textAt(manifest, "name");
  const zu::AnyCodable* issuer = manifest.find("issuer");
  if (issuer && issuer->dictionaryValue()) {
    result.issuerName = textAt(*issuer->dictionaryValue(), "name");
    result.issuerKeyId = textAt(*issuer->dictionaryValue(), "key_id");
  }
}

}  // namespace

bool ProvenanceVerification::passed() const {
  return !checks.empty() &&
         std::all_of(checks.begin(), checks.end(), [](const auto& check) { return check.passed; });
}

const ProvenanceCheck* ProvenanceVerification::check(std::string_view name) const {
  const auto found =
      std::find_if(checks.begin(), checks.end(), [&](const auto& check) { return check.name == name; });
  return found == checks.end() ? nullptr : &*found;
}

zu::Result<ProvenanceVerifier> ProvenanceVerifier::trusting(std::string_view certificateAuthorityPEM) {
  auto certificates = detail::readCertificates(certificateAuthorityPEM);
  if (!certificates) return certificates.error();
  return ProvenanceVerifier(std::make_shared<const Authorities>(Authorities{std::move(*certificates)}));
}

ProvenanceVerification ProvenanceVerifier::verify(std::span<const std::uint8_t> pdf,
                                                  const std::vector<std::string>& files) const {
  const STACK_OF(X509)* authorities = authorities_->certificates.get();
  const auto parts = detail::CertificateParts::read(pdf);
  // The time-stamp is read first: its time is the time at which the document's signature must hold.
  detail::TimestampCheck timestamp = detail::checkTimestamp(parts, authorities);
  detail::SignatureCheck signature =
      detail::checkPdfSignature(parts, authorities, timestamp.time.value_or(std::time(nullptr)));
  detail::ManifestCheck manifest = detail::checkManifest(parts, signature.signer.get());

  ProvenanceVerification result;
  result.checks = {signature.check, detail::checkCoverage(parts), manifest.check, timestamp.check};
  if (timestamp.time) result.issuedAt = detail::dateText(*timestamp.time);
  const Dictionary noManifest;
  const Dictionary& payload = manifest.manifest ? manifest.manifest->payload : noManifest;
  describe(result, payload);
  const std::vector<ManifestFile> listed = manifestFiles(payload);
  const auto keys = deviceKeys(payload);
  for (const ManifestFile& file : listed) result.checks.push_back(statementCheck(file, keys));
  if (!files.empty()) addFileChecks(result, listed, givenFiles(files));
  return result;
}

}  // namespace kiv

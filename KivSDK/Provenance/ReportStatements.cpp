#include "KivSDK/Provenance/ReportStatements.hpp"

#include <unistd.h>

#include <cerrno>

#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "KivSDK/Provenance/detail/CanonicalJSON.hpp"
#include "KivSDK/Provenance/detail/PrivateFolder.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace kiv {
namespace {

// A statement is about 600 bytes: this holds tens of thousands of files and bounds what a damaged file costs.
constexpr std::size_t kLargestStatementsFile = 32u << 20;

std::string statementsFolder() { return detail::provenanceDirectory() + "/statements"; }

// Both folders are private: the provenance folder first, so that it is not made with the default mode.
zu::Result<std::string> createdStatementsFolder() {
  const auto provenance = detail::privateFolder(detail::provenanceDirectory());
  if (!provenance) return provenance.error();
  return detail::privateFolder(statementsFolder());
}

zu::Error damaged(const std::string& path, const std::string& reason) {
  return ProvenanceError::make(ProvenanceError::malformed, "The statements file " + path + " is damaged (" +
                                                               reason + "); it is left as it is");
}

zu::Result<ReportStatements::Statements> read(const std::string& path) {
  const auto bytes = zu::detail::readWholeFile(path, kLargestStatementsFile);
  if (!bytes && bytes.error().domain() == zu::Error::posixDomain && bytes.error().code() == ENOENT) {
    return ReportStatements::Statements();
  }
  if (!bytes) return bytes.error();
  const auto document = detail::readCanonicalObject(
      std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
  if (!document) return damaged(path, document.error().localizedDescription());
  const zu::AnyCodable* member = document->find("statements");
  const zu::AnyCodable::Dictionary* object = member ? member->dictionaryValue() : nullptr;
  if (!object || document->size() != 1) return damaged(path, "no \"statements\" object");
  ReportStatements::Statements statements;
  for (const auto& [name, jws] : *object) {
    if (!jws.stringValue()) return damaged(path, "the statement of " + name + " is not text");
    statements.emplace(name, *jws.stringValue());
  }
  return statements;
}

zu::Result<void> write(const std::string& path, const ReportStatements::Statements& statements) {
  zu::AnyCodable::Dictionary object;
  for (const auto& [name, jws] : statements) object.set(name, jws);
  const auto text =
      detail::canonicalJSON(zu::AnyCodable(zu::AnyCodable::Dictionary{{"statements", std::move(object)}}));
  if (!text) return text.error();
  return zu::detail::replaceFileDurably(path, path + ".writing", zu::Data(text->begin(), text->end()));
}

}  // namespace

std::string ReportStatements::path(const zu::UUID& reportId) {
  return statementsFolder() + "/" + reportId.uuidString() + ".json";
}

zu::Result<ReportStatements::Statements> ReportStatements::load(const zu::UUID& reportId) {
  return read(path(reportId));
}

zu::Result<void> ReportStatements::add(const zu::UUID& reportId, const Statements& statements) {
  const auto folder = createdStatementsFolder();
  if (!folder) return folder.error();
  const auto lock = detail::lockedFolder(*folder);
  if (!lock) return lock.error();
  auto stored = read(path(reportId));
  if (!stored) return stored.error();
  for (const auto& [name, jws] : statements) (*stored)[name] = jws;
  return write(path(reportId), *stored);
}

zu::Result<void> ReportStatements::remove(const zu::UUID& reportId) {
  if (::unlink(path(reportId).c_str()) != 0 && errno != ENOENT) return zu::Error::posix(errno);
  return {};
}

}  // namespace kiv

#include "KivSDK/Model/KivReport.hpp"

#include <algorithm>
#include <utility>

#include "KivSDK/Model/detail/Records.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuFoundation/FatalError.hpp"

namespace kiv {

KivReport::KivReport(std::string name) : id(zu::UUID()), name(std::move(name)), created(zu::Date::now()) {}

std::string_view KivReport::string(ProofStatus status) {
  switch (status) {
    case ProofStatus::undefined:
      return "undefined";
    case ProofStatus::pending:
      return "pending";
    case ProofStatus::failed:
      return "failed";
    default:
      return "confirmed";  // gettingCertificate too: to the user it is a confirmed report
  }
}

KivReport::ProofStatus KivReport::proofStatus(std::string_view fromAPIString) {
  for (auto status : {ProofStatus::pending, ProofStatus::confirmed, ProofStatus::failed}) {
    if (fromAPIString == string(status)) return status;
  }
  return ProofStatus::undefined;
}

KivReport::ProofStatus KivReport::proofStatus() const {
  const auto status = zu::fromRawValue<ProofStatus>(_proofStatusInt);
  if (!status) zu::fatalError("Stored proof status out of range: " + std::to_string(_proofStatusInt));
  return *status;
}

bool KivReport::certificationCanBeRequested() const {
  return proofStatus() == ProofStatus::undefined && !slug && !certificationRequestedDate && !files.empty();
}

std::optional<zu::AnyCodable::Dictionary> KivReport::metadata() const {
  return detail::nestedMetadata(_metadata);
}

void KivReport::setMetadata(const std::optional<zu::AnyCodable::Dictionary>& metadata) {
  _metadata = detail::flatMetadata(metadata);
}

zu::URL KivReport::pdfDirectory() { return zu::ZuFileManager::documentsSubdirectory("PDFs"); }

zu::URL KivReport::pdfURL() const {
  return pdfDirectory().appendingPathComponent(name).appendingPathExtension("pdf");
}

bool KivReport::hasLocalPDF() const {
  return zu::ZuFileManager::isPlainPathComponent(name) && zu::ZuFileManager::fileExists(pdfURL());
}

KivReport KivReport::merge(const KivReport& with) const {
  KivReport merged = with;
  merged.id = detail::newerOrOlder(with.id, id);
  merged.note = detail::newerOrOlder(with.note, note);
  merged.slug = detail::newerOrOlder(with.slug, slug);
  merged.hash = detail::newerOrOlder(with.hash, hash);
  merged.email = detail::newerOrOlder(with.email, email);
  merged.setMetadata(detail::newerOrOlder(with.metadata(), metadata()));
  return merged;
}

bool KivReport::isIdenticalForUI(const KivReport& to) const {
  return name == to.name && _proofStatusInt == to._proofStatusInt && files == to.files;
}

bool operator==(const KivReport& a, const KivReport& b) {
  if (a.slug && b.slug) return *a.slug == *b.slug;
  if (a.id && b.id) return *a.id == *b.id;
  return a.name == b.name;
}

bool operator<(const KivReport& a, const KivReport& b) {
  return detail::wholeSeconds(a.created) < detail::wholeSeconds(b.created);
}

}  // namespace kiv

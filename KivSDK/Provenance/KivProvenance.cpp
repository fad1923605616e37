// KivProvenance: the device's signer and the statements it signs.
#include "KivSDK/Provenance/KivProvenance.hpp"

#include <mutex>
#include <utility>

#include "KivSDK/Provenance/FileStatement.hpp"
#include "KivSDK/Provenance/ProvenanceError.hpp"

namespace kiv {
namespace {

// The host's signer, or the installation's key once made (and the path it was made for: a host or a test
// that moves the application data folder gets the key of the new folder).
struct SignerState {
  std::mutex mutex;
  std::shared_ptr<const DeviceSigner> hostSigner;
  std::shared_ptr<const DeviceSigner> installationKey;
  std::string installationKeyPath;
};

SignerState& signerState() {
  static SignerState state;
  return state;
}

}  // namespace

void KivProvenance::setDeviceSigner(std::shared_ptr<const DeviceSigner> signer) {
  SignerState& state = signerState();
  std::lock_guard lock(state.mutex);
  state.hostSigner = std::move(signer);
}

zu::Result<std::shared_ptr<const DeviceSigner>> KivProvenance::deviceSigner() {
  SignerState& state = signerState();
  std::lock_guard lock(state.mutex);
  if (state.hostSigner) return state.hostSigner;
  const std::string path = DeviceKey::installationKeyPath();
  if (!state.installationKey || state.installationKeyPath != path) {
    auto key = DeviceKey::at(path);
    if (!key) return key.error();
    state.installationKey = std::move(*key);
    state.installationKeyPath = path;
  }
  return state.installationKey;
}

zu::Result<ReportStatements::Statements> KivProvenance::signStatements(const KivReport& report,
                                                                       const std::vector<KivFile>& files) {
  if (!report.id) {
    return ProvenanceError::make(ProvenanceError::unstatableFile, "The report " + report.name + " has no id");
  }
  const auto signer = deviceSigner();
  if (!signer) return signer.error();
  const std::string keyId = (*signer)->keyId();
  const zu::Date now = zu::Date::now();
  ReportStatements::Statements statements;
  for (const KivFile& file : files) {
    const auto statement = FileStatement::about(file, keyId, now);
    if (!statement) return statement.error();
    auto jws = statement->sign(**signer);
    if (!jws) return jws.error();
    statements[statement->fileName] = std::move(*jws);
  }
  if (auto error = ReportStatements::add(*report.id, statements)) return *error;
  return statements;
}

zu::Result<std::string> KivProvenance::signStatement(const KivReport& report, const KivFile& file) {
  auto statements = signStatements(report, {file});
  if (!statements) return statements.error();
  return std::move(statements->begin()->second);
}

zu::Result<KivProvenance::SignedReportFile> KivProvenance::addSignedMediaFileToStoredReport(
    const zu::URL& file, std::string_view report) {
  auto added = addMediaFileToStoredReport(file, report);
  if (!added) return added.error();
  auto statement = signStatement(added->report, added->file);
  if (!statement) {
    return ProvenanceError::make(
        ProvenanceError::unstatableFile,
        FileStatement::wireName(added->file) + " was added to the report " + added->report.name +
            ", but its statement was not signed: " + statement.error().localizedDescription());
  }
  return SignedReportFile{std::move(*added), std::move(*statement)};
}

}  // namespace kiv

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

// The device's signer, for statements about `report`'s files, which are kept by its id.
zu::Result<std::shared_ptr<const DeviceSigner>> signerFor(const KivReport& report) {
  if (!report.id) {
    return ProvenanceError::make(
        ProvenanceError::unstatableFile,
        "The report " + report.name + " has no id, so no statements can be kept for it");
  }
  return KivProvenance::deviceSigner();
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
  const auto signer = signerFor(report);
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
  if (auto added = ReportStatements::add(*report.id, statements); !added) return added.error();
  return statements;
}

zu::Result<std::string> KivProvenance::signStatement(const KivReport& report, const KivFile& file) {
  auto statements = signStatements(report, {file});
  if (!statements) return statements.error();
  return std::move(statements->begin()->second);
}

zu::Result<KivProvenance::SignedMediaFile> KivProvenance::importSignedMediaFile(
    const zu::URL& file, const KivReport& report, const std::vector<KivReport>& reports,
    const MediaImportOptions& options) {
  // Without a key nothing is taken in: the file stays where it is.
  if (const auto signer = signerFor(report); !signer) return signer.error();
  auto imported = importMediaFile(file, report, reports, options);
  if (!imported) return imported.error();
  auto statement = signStatement(report, *imported);
  if (statement) return SignedMediaFile{std::move(*imported), std::move(*statement)};
  const auto undone = undoMediaImport(*imported, file, options);
  std::string message = file.path() + " was not taken in: its statement could not be signed (" +
                        statement.error().localizedDescription() + ")";
  if (!undone) {
    message +=
        "; it stays at " + imported->fileURL().path() + " (" + undone.error().localizedDescription() + ")";
  }
  return ProvenanceError::make(ProvenanceError::unstatableFile, message);
}

}  // namespace kiv

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KivSDK/Model/KivFileImport.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "KivSDK/Provenance/DeviceSigner.hpp"
#include "KivSDK/Provenance/ReportStatements.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"

namespace kiv {

/**
 * Provenance on the device: the device's signer, signed statements about the files a report takes in, and
 * the certification service's provenance routes (device keys, statements, the signed manifest, its
 * time-stamp and the service's certificates). Never instantiated; every member is static. Checking a
 * certificate offline is `ProvenanceVerifier`'s.
 *
 * The service operations go through `KivAPI`'s client instance, so they use its address, token and trusted
 * authorities. Each ends in one completion, called exactly once: on the networking layer's thread, or before
 * the operation returns, with nothing sent, when a precondition fails (no slug, no statements, no device
 * key).
 *
 * @code
 * // When a capture is saved or a file is brought in:
 * auto imported = kiv::KivProvenance::importSignedMediaFile(fileURL, report, reports);
 * if (imported) report.files.push_back(imported->file);
 * // Once the report is sent, before its files' content is uploaded:
 * kiv::KivProvenance::sendStatements(sentReport, [](auto receipts, auto error) { ... });
 * @endcode
 *
 * @par Thread Safety
 * All operations may be called from any thread.
 */
class KivProvenance {
 public:
  /// A statement the service holds for a report: which file, which device key.
  struct StatementReceipt {
    std::string fileName;
    std::string keyId;
    friend bool operator==(const StatementReceipt&, const StatementReceipt&) = default;
  };
  /// A media file taken into a report, and its statement's JWS.
  struct SignedMediaFile {
    KivFile file;
    std::string statement;
  };

  using KeyCompletion = std::function<void(std::optional<std::string> keyId, std::optional<zu::Error> error)>;
  using ReceiptsCompletion = std::function<void(std::optional<std::vector<StatementReceipt>> statements,
                                                std::optional<zu::Error> error)>;
  using TextCompletion = std::function<void(std::optional<std::string> text, std::optional<zu::Error> error)>;
  using DataCompletion = std::function<void(std::optional<zu::Data> bytes, std::optional<zu::Error> error)>;

  KivProvenance() = delete;

  // ---- The device's signer ----

  /// Makes `signer` (a hardware-backed key, say) sign from now on; null returns to the installation's key.
  static void setDeviceSigner(std::shared_ptr<const DeviceSigner> signer);
  /// The host's signer, else the installation's `DeviceKey`, made on first use.
  static zu::Result<std::shared_ptr<const DeviceSigner>> deviceSigner();

  // ---- Statements ----

  /**
   * Signs a statement about each of `files` of `report` with the device's signer, at the current time, and
   * adds them to the report's statements (see `ReportStatements`), replacing earlier ones of the same files.
   * Each file needs its digest (`withCalculatedHash()`), which must be that of the bytes on this device; the
   * report needs its id. Nothing is stored when one cannot be signed.
   */
  static zu::Result<ReportStatements::Statements> signStatements(const KivReport& report,
                                                                 const std::vector<KivFile>& files);
  /// `signStatements` for one file; answers its JWS.
  static zu::Result<std::string> signStatement(const KivReport& report, const KivFile& file);
  /**
   * `importMediaFile`, then the device's statement about the file, kept with the report's statements: how a
   * host takes evidence in with its provenance. The report needs its id. When the statement cannot be signed
   * or kept, the import is undone (see `undoMediaImport`) and the error says why; nothing is taken in without
   * a device key.
   */
  static zu::Result<SignedMediaFile> importSignedMediaFile(const zu::URL& file, const KivReport& report,
                                                           const std::vector<KivReport>& reports,
                                                           const MediaImportOptions& options = {});

  // ---- The service ----

  /// Registers the device signer's public key for the application token; the completion receives its key id.
  static void registerDeviceKey(KeyCompletion completion);
  /**
   * Registers the device key, then sends the statements of `report`'s files (those in its statements file)
   * to the service, all or nothing. The completion receives every statement the service now holds for the
   * report. Needs the report's slug; fails at once when none of its files has a statement.
   */
  static void sendStatements(const KivReport& report, ReceiptsCompletion completion);
  /// The report's signed manifest (a compact JWS); the service has one once the report is "confirmed".
  static void fetchManifest(const KivReport& report, TextCompletion completion);
  /// The RFC 3161 time-stamp response (DER) over the report's manifest.
  static void fetchTimestamp(const KivReport& report, DataCompletion completion);
  /// The service's certificates (PEM): the signing certificate, the time-stamp authority's and the CA's.
  static void fetchCertificates(TextCompletion completion);
};

}  // namespace kiv

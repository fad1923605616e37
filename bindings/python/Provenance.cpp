// Device statements about a report's files, the service's provenance routes, and certificates checked
// offline.
#include "Conversions.hpp"
// The module's own casters come first; then pybind11's containers.
#include <pybind11/stl.h>

#include <string>
#include <vector>

#include "Bindings.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "KivSDK/Provenance/ProvenanceVerifier.hpp"

namespace kivpy {
namespace {

using kiv::KivProvenance;
using kiv::KivReport;

void bindSigning(py::module_& module) {
  py::class_<KivProvenance::SignedMediaFile>(module, "SignedMediaFile",
                                             "A media file taken into a report, and its statement's JWS.")
      .def_readonly("file", &KivProvenance::SignedMediaFile::file)
      .def_readonly("statement", &KivProvenance::SignedMediaFile::statement);
  module.def(
      "device_key_id", [] { return valueOrRaise(KivProvenance::deviceSigner())->keyId(); },
      "The device key's id (hexadecimal SHA-256 of its public key); the key is made on first use.");
  module.def(
      "sign_statements",
      // The records are copies, read without the GIL while other Python threads may change the originals.
      [](KivReport report,  // NOLINT(performance-unnecessary-value-param)
         const std::vector<kiv::KivFile>& files) {
        py::gil_scoped_release release;
        return valueOrRaise(KivProvenance::signStatements(report, files));
      },
      py::arg("report"), py::arg("files"),
      "Signs a statement about each of `files` (which need their digests) and keeps them with the report's "
      "statements; answers every statement of the report, by file name.");
  module.def(
      "import_signed_media_file",
      [](const std::string& path, KivReport report,  // NOLINT(performance-unnecessary-value-param): as above
         const std::vector<KivReport>& reports, bool move, std::optional<zu::Date> dateTaken) {
        py::gil_scoped_release release;
        return valueOrRaise(KivProvenance::importSignedMediaFile(zu::URL::fileURLWithPath(path), report,
                                                                 reports, {move, dateTaken}));
      },
      py::arg("path"), py::arg("report"), py::arg("reports"), py::kw_only(), py::arg("move") = false,
      py::arg("date_taken") = py::none(),
      "`import_media_file`, then the device's signed statement about the file, kept with the report's "
      "statements. Nothing is taken in when it cannot be signed.");
}

void bindServiceRoutes(py::module_& module) {
  py::class_<KivProvenance::StatementReceipt>(module, "StatementReceipt",
                                              "A statement the service holds: which file, which device key.")
      .def_readonly("file_name", &KivProvenance::StatementReceipt::fileName)
      .def_readonly("key_id", &KivProvenance::StatementReceipt::keyId);
  module.def(
      "register_device_key",
      [](const py::object& callback) {
        return complete([](auto done) { KivProvenance::registerDeviceKey(std::move(done)); }, callback);
      },
      py::kw_only(), py::arg("callback") = py::none(),
      "Registers the device key with the service for the application token; answers its key id.");
  bindReportOperation(
      module, "send_statements", &KivProvenance::sendStatements,
      "Sends the statements of the report's files (after `send`, before the uploads); answers "
      "every StatementReceipt the service holds for the report.");
  bindReportOperation(module, "fetch_manifest", &KivProvenance::fetchManifest,
                      "The confirmed report's signed manifest, a compact JWS.");
  bindReportOperation(module, "fetch_timestamp", &KivProvenance::fetchTimestamp,
                      "The RFC 3161 time-stamp response (DER bytes) over the report's manifest.");
  module.def(
      "fetch_certificates",
      [](const py::object& callback) {
        return complete([](auto done) { KivProvenance::fetchCertificates(std::move(done)); }, callback);
      },
      py::kw_only(), py::arg("callback") = py::none(),
      "The service's certificates (PEM): its signing certificate, its time-stamp authority's, its CA's.");
}

kiv::ProvenanceVerifier trusting(const std::string& certificateAuthorityPEM) {
  return valueOrRaise(kiv::ProvenanceVerifier::trusting(certificateAuthorityPEM));
}

kiv::ProvenanceVerification verify(const kiv::ProvenanceVerifier& verifier, const py::bytes& pdf,
                                   const std::vector<std::string>& files) {
  const std::string document = pdf;
  py::gil_scoped_release release;
  return verifier.verify(std::span(reinterpret_cast<const std::uint8_t*>(document.data()), document.size()),
                         files);
}

void bindVerification(py::module_& module) {
  using kiv::ProvenanceCheck;
  using kiv::ProvenanceVerification;
  py::class_<ProvenanceCheck>(module, "ProvenanceCheck", "One check of a certificate.")
      .def_readonly("name", &ProvenanceCheck::name,
                    "\"pdf-signature\", \"pdf-coverage\", \"manifest-signature\", \"timestamp\", "
                    "\"statement:<file>\" or \"file:<file>\".")
      .def_readonly("passed", &ProvenanceCheck::passed)
      .def_readonly("message", &ProvenanceCheck::message, "A sentence saying what was found.")
      .def("__repr__", [](const ProvenanceCheck& self) {
        return "ProvenanceCheck(" + std::string(py::repr(py::cast(self.name))) +
               (self.passed ? ", passed)" : ", failed)");
      });
  py::class_<ProvenanceVerification>(module, "ProvenanceVerification",
                                     "Every check of one certificate, and what the certificate says.")
      .def_readonly("checks", &ProvenanceVerification::checks)
      .def_readonly("slug", &ProvenanceVerification::slug)
      .def_readonly("report_name", &ProvenanceVerification::reportName)
      .def_readonly("issuer_name", &ProvenanceVerification::issuerName)
      .def_readonly("issuer_key_id", &ProvenanceVerification::issuerKeyId)
      .def_readonly("issued_at", &ProvenanceVerification::issuedAt)
      .def_property_readonly("passed", &ProvenanceVerification::passed,
                             "Whether every check holds (and there is at least one).")
      .def(
          "check",
          [](const ProvenanceVerification& self, const std::string& name) -> std::optional<ProvenanceCheck> {
            const ProvenanceCheck* found = self.check(name);
            if (!found) return std::nullopt;
            return *found;
          },
          py::arg("name"), "The check of that name, None when there is none.");
  py::class_<kiv::ProvenanceVerifier>(
      module, "ProvenanceVerifier",
      "Checks signed certificate PDFs offline, against a CA the caller trusts. "
      "Immutable: one verifier may check many certificates, from any thread.")
      .def_static("trusting", &trusting, py::arg("certificate_authority_pem"),
                  "A verifier that trusts the certificates of the PEM text; KivError when it holds none.")
      .def("verify", &verify, py::arg("pdf"), py::arg("files") = std::vector<std::string>{},
           "Checks the certificate `pdf` (bytes) and, when given, the media `files` (paths of files or "
           "folders, matched to the manifest by file name). Never raises for a bad document: its checks "
           "fail, with the reason.");
}

}  // namespace

void bindProvenance(py::module_& module) {
  bindSigning(module);
  bindServiceRoutes(module);
  bindVerification(module);
}

}  // namespace kivpy

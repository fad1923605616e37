// The records (files, reports, newsletter lists), the report store, media import and digests.
#include "Conversions.hpp"
// The module's own casters come first; then pybind11's containers.
#include <pybind11/stl.h>

#include <string>
#include <vector>

#include "Bindings.hpp"
#include "KivSDK/API/KivUserProperties.hpp"
#include "KivSDK/Model/KivFileImport.hpp"
#include "KivSDK/Model/KivModel.hpp"
#include "KivSDK/Model/KivReportList.hpp"
#include "ZuDigest/ZuDigest.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kivpy {
namespace {

using kiv::KivFile;
using kiv::KivReport;

std::optional<std::string> urlText(const std::optional<zu::URL>& url) {
  if (!url) return std::nullopt;
  return url->absoluteString();
}

std::optional<zu::URL> urlFromText(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  auto url = zu::URL::fromString(*text);
  if (!url) throw py::value_error("not a URL: " + *text);
  return url;
}

std::optional<std::string> localPath(const std::optional<zu::URL>& url) {
  if (!url) return std::nullopt;
  return url->path();
}

std::optional<std::string> idText(const KivReport& report) {
  if (!report.id) return std::nullopt;
  return report.id->uuidString();
}

void setId(KivReport& report, const std::optional<std::string>& text) {
  if (!text) return report.id.reset();
  const auto id = zu::UUID::fromString(*text);
  if (!id) throw py::value_error("not a UUID: " + *text);
  report.id = id;
}

template <class Record>
py::object metadataOf(const Record& record) {
  const auto metadata = record.metadata();
  return metadata ? toPython(*metadata) : py::none();
}

template <class Record>
void setMetadataOf(Record& record, const py::dict& metadata) {
  record.setMetadata(dictionaryFromPython(metadata));
}

template <class Record>
std::optional<Record> fromResponse(const py::dict& response) {
  return Record::fromKivAPIResponseDict(dictionaryFromPython(response));
}

/// What files and reports share: metadata, their service JSON, ordering, equality and digests.
template <class Record>
void bindRecordBasics(py::class_<Record>& record) {
  record
      .def_property("metadata", &metadataOf<Record>, &setMetadataOf<Record>,
                    "The metadata as nested dicts (leaves read back as text), None when there is none. "
                    "Setting None is refused: nothing clears it.")
      .def(
          "dictionary_representation",
          [](const Record& self) { return toPython(self.dictionaryRepresentation()); },
          "The service's JSON object for this record.")
      .def_static("from_api_response", &fromResponse<Record>, py::arg("response"),
                  "A record read from the service's JSON object (a dict); None when it is not one.")
      .def(
          "with_calculated_hash",
          [](Record self) {  // a copy, which other Python threads cannot change while it is read
            py::gil_scoped_release release;
            return self.withCalculatedHash();
          },
          "A copy carrying the SHA-256 of its content (a report: of its files and of their digests).")
      .def("is_identical_for_ui", &Record::isIdenticalForUI, py::arg("to"))
      .def("merge", &Record::merge, py::arg("with_"),
           "This (local) record updated with `with_`, the newer copy (typically the service's answer).")
      .def("__copy__", [](const Record& self) { return self; })
      .def(
          "__deepcopy__", [](const Record& self, const py::dict&) { return self; }, py::arg("memo"))
      .def(
          "__eq__", [](const Record& a, const Record& b) { return a == b; }, py::is_operator())
      .def(
          "__lt__", [](const Record& a, const Record& b) { return a < b; }, py::is_operator())
      .def(
          "__le__", [](const Record& a, const Record& b) { return a <= b; }, py::is_operator())
      .def(
          "__gt__", [](const Record& a, const Record& b) { return a > b; }, py::is_operator())
      .def(
          "__ge__", [](const Record& a, const Record& b) { return a >= b; }, py::is_operator());
}

void bindFile(py::module_& module) {
  py::class_<KivFile> file(module, "KivFile",
                           "One photo or video of a report: a value record. Its bytes live at `file_url`, "
                           "in the SDK's media folder. Attributes read and assign copies.");
  py::enum_<KivFile::FileType>(file, "FileType")
      .value("unknown", KivFile::FileType::unknown)
      .value("image", KivFile::FileType::image)
      .value("video", KivFile::FileType::video);
  file.def(py::init<std::string, std::string, zu::Date>(), py::arg("name"), py::arg("ext"),
           py::arg("date_taken"))
      .def_readwrite("name", &KivFile::name, "The file name on the device, without extension.")
      .def_readwrite("description", &KivFile::description)
      .def_readwrite("ext", &KivFile::ext, "The extension without the dot (\"jpg\", \"mov\").")
      .def_readwrite("file_type", &KivFile::fileType)
      .def_readwrite("date_taken", &KivFile::dateTaken)
      .def_readonly("slug", &KivFile::slug, "The service's identifier of the file, once it accepted it.")
      .def_readwrite("hash", &KivFile::hash,
                     "Lower-case hexadecimal SHA-256 of the content, once calculated.")
      .def_property(
          "remote_url", [](const KivFile& self) { return urlText(self.remoteUrl); },
          [](KivFile& self, const std::optional<std::string>& url) { self.remoteUrl = urlFromText(url); },
          "Where the service holds the uploaded content.")
      .def_readwrite("last_file_upload_attempt_date", &KivFile::_lastFileUploadAttemptDate)
      .def_property_readonly(
          "file_url", [](const KivFile& self) { return self.fileURL().path(); },
          "The path of the content in the media folder, whether or not a file is there.")
      .def_property_readonly(
          "local_file_location", [](const KivFile& self) { return localPath(self.localFileLocation()); },
          "`file_url` when a file is there, else None.")
      .def_property_readonly("has_plain_file_name", &KivFile::hasPlainFileName)
      .def_property_readonly("has_local_file", &KivFile::hasLocalFile)
      .def_property_readonly("has_remote_file", &KivFile::hasRemoteFile)
      .def(
          "can_attempt_file_upload",
          [](const KivFile& self, std::optional<zu::Date> now) {
            return self.canAttemptFileUpload(now.value_or(zu::Date::now()));
          },
          py::arg("now") = py::none(),
          "Whether an upload may be attempted at `now`: at most once in 1800 seconds, never once uploaded.")
      .def("updating_file_upload_attempt_date", &KivFile::updatingFileUploadAttemptDate, py::arg("date"))
      .def_static("file_type_for_extension", &KivFile::fileTypeForExtension, py::arg("ext"))
      .def_static(
          "kiv_directory", [] { return KivFile::kivDirectory().path(); },
          "The media folder, made when missing.")
      .def("__repr__", [](const KivFile& self) {
        return "KivFile(" + std::string(py::repr(py::cast(self.name))) + ", " +
               std::string(py::repr(py::cast(self.ext))) + ")";
      });
  bindRecordBasics(file);
}

void bindReport(py::module_& module) {
  py::class_<KivReport> report(module, "KivReport",
                               "A named, dated group of media files submitted together for certification: a "
                               "value record. Attributes read and assign copies: change `files` by assigning "
                               "a new list.");
  py::enum_<KivReport::ProofStatus>(report, "ProofStatus")
      .value("undefined", KivReport::ProofStatus::undefined)
      .value("pending", KivReport::ProofStatus::pending)
      .value("confirmed", KivReport::ProofStatus::confirmed)
      .value("failed", KivReport::ProofStatus::failed)
      .value("getting_certificate", KivReport::ProofStatus::gettingCertificate);
  report
      .def(py::init<std::string>(), py::arg("name"),
           "A new report: a fresh id, created now, no files, status undefined.")
      .def_property("id", &idText, &setId, "The local identity: an upper-case UUID text.")
      .def_readwrite("name", &KivReport::name, "The title; also the certificate's file name.")
      .def_readwrite("created", &KivReport::created)
      .def_readwrite("note", &KivReport::note)
      .def_readwrite("files", &KivReport::files)
      .def_readonly("slug", &KivReport::slug, "The service's identifier of the report, once it accepted it.")
      .def_readwrite("certification_requested_date", &KivReport::certificationRequestedDate)
      .def_readwrite("hash", &KivReport::hash, "The report digest over its files' digests.")
      .def_readwrite("email", &KivReport::email, "Where the certificate is sent.")
      .def_property("proof_status", py::overload_cast<>(&KivReport::proofStatus, py::const_),
                    &KivReport::setProofStatus)
      .def_property_readonly("has_slug", &KivReport::hasSlug)
      .def_property_readonly("certification_can_be_requested", &KivReport::certificationCanBeRequested)
      .def_property_readonly(
          "pdf_url", [](const KivReport& self) { return self.pdfURL().path(); },
          "The path of the certificate: the PDF folder, the report's name and \".pdf\".")
      .def_property_readonly("has_local_pdf", &KivReport::hasLocalPDF)
      .def_static(
          "status_text", [](KivReport::ProofStatus status) { return std::string(KivReport::string(status)); },
          py::arg("status"), "The status's text: \"undefined\", \"pending\", \"failed\" or \"confirmed\".")
      .def_static(
          "pdf_directory", [] { return KivReport::pdfDirectory().path(); },
          "The PDF folder, made when missing.")
      .def("__repr__", [](const KivReport& self) {
        return "KivReport(" + std::string(py::repr(py::cast(self.name))) + ", " +
               std::to_string(self.files.size()) + " files, " +
               std::string(KivReport::string(self.proofStatus())) + ")";
      });
  bindRecordBasics(report);
}

void bindNewsletterRecords(py::module_& module) {
  py::class_<zu::ZuMailList>(module, "MailList", "A newsletter and whether the user wants it.")
      .def(py::init<std::string, std::string, bool>(), py::arg("name"), py::arg("description"),
           py::arg("subscribed"))
      .def_readwrite("name", &zu::ZuMailList::name)
      .def_readwrite("description", &zu::ZuMailList::description)
      .def_readwrite("subscribed", &zu::ZuMailList::subscribed)
      .def(
          "__eq__", [](const zu::ZuMailList& a, const zu::ZuMailList& b) { return a == b; },
          py::is_operator());
  py::class_<kiv::KivUserProperties>(module, "UserProperties",
                                     "The user's contact details and the newsletters they want.")
      .def(py::init<std::optional<std::string>, std::optional<std::string>, std::vector<zu::ZuMailList>>(),
           py::arg("email") = py::none(), py::arg("phone") = py::none(),
           py::arg("mailing_lists") = std::vector<zu::ZuMailList>{})
      .def_readwrite("email", &kiv::KivUserProperties::email, "Required to register newsletters.")
      .def_readwrite("phone", &kiv::KivUserProperties::phone)
      .def_readwrite("mailing_lists", &kiv::KivUserProperties::mailingLists);
}

void bindStore(py::module_& module) {
  module.def(
      "set_data_directory", &zu::ZuFileManager::setApplicationDataDirectory, py::arg("path"),
      "Makes `path` the application's data folder (the report store, media, certificates, device key); "
      "None restores the default under $XDG_DATA_HOME. Set it before anything else.");
  module.def("data_directory", &zu::ZuFileManager::applicationDataDirectory);
  module.def("load_from_store", &kiv::KivModel::loadFromStore, py::call_guard<py::gil_scoped_release>(),
             "The stored report list. The first load on a device sets the store up: call it at start-up, "
             "before the first persist.");
  module.def("persist", &kiv::KivModel::persist, py::arg("reports"), py::call_guard<py::gil_scoped_release>(),
             "Replaces the stored report list with `reports`.");
  module.def(
      "find_report",
      [](const std::vector<KivReport>& reports, const std::string& selector) {
        return valueOrRaise(kiv::findReport(reports, selector));
      },
      py::arg("reports"), py::arg("selector"),
      "The index of the report that `selector` names: its id, slug, exact name, or a prefix of its id.");
  module.def(
      "check_new_report_name",
      [](const std::vector<KivReport>& reports, const std::string& name) {
        valueOrRaise(kiv::checkNewReportName(reports, name));
      },
      py::arg("reports"), py::arg("name"),
      "Raises KivError when `name` cannot name a new report beside `reports`.");
  module.def(
      "import_media_file",
      // The report is a copy, read without the GIL while other Python threads may change the original.
      [](const std::string& path, KivReport report,  // NOLINT(performance-unnecessary-value-param)
         const std::vector<KivReport>& reports, bool move, std::optional<zu::Date> dateTaken) {
        py::gil_scoped_release release;
        return valueOrRaise(
            kiv::importMediaFile(zu::URL::fileURLWithPath(path), report, reports, {move, dateTaken}));
      },
      py::arg("path"), py::arg("report"), py::arg("reports"), py::kw_only(), py::arg("move") = false,
      py::arg("date_taken") = py::none(),
      "Copies (or moves) the photo or video at `path` into the media folder for `report`; answers its "
      "record, with its digest, for the caller to add to the report and persist.");
  module.def(
      "sha256_of_file",
      [](const std::string& path) {
        auto digest = [&] {
          py::gil_scoped_release release;
          return zu::sha256OfFile(path);
        }();
        return zu::hexString(valueOrRaise(std::move(digest)));
      },
      py::arg("path"), "The lower-case hexadecimal SHA-256 of the file's bytes.");
}

}  // namespace

void bindRecords(py::module_& module) {
  bindFile(module);
  bindReport(module);
  bindNewsletterRecords(module);
  bindStore(module);
}

}  // namespace kivpy

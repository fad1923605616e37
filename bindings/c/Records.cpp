// The records and the store through C: files, reports, the report list, media import and digests.
#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "KivSDK/Model/KivFileImport.hpp"
#include "KivSDK/Model/KivModel.hpp"
#include "KivSDK/Model/KivReportList.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "ZuDigest/ZuDigest.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "detail/Boundary.hpp"

using namespace kiv::detail::capi;  // NOLINT(google-build-using-namespace): the boundary's vocabulary

namespace {

template <class Handle>
kiv_status copyHandle(const Handle* handle, Handle** copy) {
  return guarded([&] { giveHandle(copy, valueOf(handle), "copy"); });
}

template <class Handle, class Read>
kiv_status readText(const Handle* handle, char** out, Read read) {
  return guarded([&] { give(out, read(valueOf(handle)), "result"); });
}

template <class Handle, class Out, class Read>
kiv_status readValue(const Handle* handle, Out* out, Read read) {
  return guarded([&] { deref(out, "result") = read(valueOf(handle)); });
}

const kiv::KivReport& reportAt(const kiv_report_list* list, std::size_t index) {
  const auto& reports = valueOf(list);
  if (index >= reports.size()) throw ArgumentError("no report at index " + std::to_string(index));
  return reports[index];
}

std::vector<kiv::KivReport> reportsOrNone(const kiv_report_list* reports) {
  return reports == nullptr ? std::vector<kiv::KivReport>{} : reports->value;
}

kiv::MediaImportOptions importOptions(int flags) {
  if ((flags & ~KIV_IMPORT_MOVE) != 0) throw ArgumentError("unknown import flags " + std::to_string(flags));
  kiv::MediaImportOptions options;
  options.move = (flags & KIV_IMPORT_MOVE) != 0;
  return options;
}

}  // namespace

extern "C" {

// ---- Set-up and digests ----

kiv_status kiv_set_application_data_directory(const char* path) {
  return guarded([&] { zu::ZuFileManager::setApplicationDataDirectory(optionalUtf8(path, "path")); });
}

kiv_status kiv_sha256_bytes(const void* bytes, size_t size, char** hex) {
  return guarded([&] {
    if (bytes == nullptr && size > 0) throw ArgumentError("bytes is NULL");
    const std::span<const std::uint8_t> data(static_cast<const std::uint8_t*>(bytes), size);
    give(hex, zu::hexString(zu::sha256(data)), "hex");
  });
}

kiv_status kiv_sha256_file(const char* path, char** hex) {
  return guarded([&] { give(hex, zu::hexString(take(zu::sha256OfFile(utf8(path, "path")))), "hex"); });
}

// ---- Files ----

kiv_status kiv_file_new(const char* name, const char* extension, double date_taken, kiv_file** file) {
  return guarded([&] {
    giveHandle(file,
               kiv::KivFile(utf8(name, "name"), utf8(extension, "extension"),
                            dateFromUnixTime(date_taken, "date_taken")),
               "file");
  });
}

kiv_status kiv_file_copy(const kiv_file* file, kiv_file** copy) { return copyHandle(file, copy); }

void kiv_file_free(kiv_file* file) { delete file; }

kiv_status kiv_file_name(const kiv_file* file, char** name) {
  return readText(file, name, [](const kiv::KivFile& f) { return f.name; });
}

kiv_status kiv_file_extension(const kiv_file* file, char** extension) {
  return readText(file, extension, [](const kiv::KivFile& f) { return f.ext; });
}

kiv_status kiv_file_type(const kiv_file* file, kiv_file_kind* type) {
  return readValue(file, type, [](const kiv::KivFile& f) { return static_cast<kiv_file_kind>(f.fileType); });
}

kiv_status kiv_file_date_taken(const kiv_file* file, double* date_taken) {
  return readValue(file, date_taken, [](const kiv::KivFile& f) { return unixTime(f.dateTaken); });
}

kiv_status kiv_file_description(const kiv_file* file, char** description) {
  return readText(file, description, [](const kiv::KivFile& f) { return f.description; });
}

kiv_status kiv_file_hash(const kiv_file* file, char** hash) {
  return readText(file, hash, [](const kiv::KivFile& f) { return f.hash; });
}

kiv_status kiv_file_slug(const kiv_file* file, char** slug) {
  return readText(file, slug, [](const kiv::KivFile& f) { return f.slug; });
}

kiv_status kiv_file_remote_url(const kiv_file* file, char** url) {
  return readText(file, url, [](const kiv::KivFile& f) {
    return f.remoteUrl ? std::optional(f.remoteUrl->absoluteString()) : std::nullopt;
  });
}

kiv_status kiv_file_local_path(const kiv_file* file, char** path) {
  return readText(file, path, [](const kiv::KivFile& f) {
    if (!f.hasPlainFileName()) throw ArgumentError("\"" + f.name + "\" is not a plain file name");
    return std::optional(f.fileURL().path());
  });
}

kiv_status kiv_file_calculate_hash(kiv_file* file) {
  return guarded([&] {
    kiv::KivFile& record = valueOf(file);
    record = record.withCalculatedHash();
    if (!record.hash) throw zu::Error::posix(ENOENT, "no content of " + record.name + "." + record.ext);
  });
}

// ---- Reports ----

kiv_status kiv_report_new(const char* name, kiv_report** report) {
  return guarded([&] {
    std::string title = utf8(name, "name");
    take(kiv::checkNewReportName({}, title));
    giveHandle(report, kiv::KivReport(std::move(title)), "report");
  });
}

kiv_status kiv_report_copy(const kiv_report* report, kiv_report** copy) { return copyHandle(report, copy); }

void kiv_report_free(kiv_report* report) { delete report; }

kiv_status kiv_report_name(const kiv_report* report, char** name) {
  return readText(report, name, [](const kiv::KivReport& r) { return r.name; });
}

kiv_status kiv_report_id(const kiv_report* report, char** id) {
  return readText(report, id, [](const kiv::KivReport& r) {
    return r.id ? std::optional(r.id->uuidString()) : std::nullopt;
  });
}

kiv_status kiv_report_created(const kiv_report* report, double* created) {
  return readValue(report, created, [](const kiv::KivReport& r) { return unixTime(r.created); });
}

kiv_status kiv_report_slug(const kiv_report* report, char** slug) {
  return readText(report, slug, [](const kiv::KivReport& r) { return r.slug; });
}

kiv_status kiv_report_hash(const kiv_report* report, char** hash) {
  return readText(report, hash, [](const kiv::KivReport& r) { return r.hash; });
}

kiv_status kiv_report_note(const kiv_report* report, char** note) {
  return readText(report, note, [](const kiv::KivReport& r) { return r.note; });
}

kiv_status kiv_report_set_note(kiv_report* report, const char* note) {
  return guarded([&] { valueOf(report).note = optionalUtf8(note, "note"); });
}

kiv_status kiv_report_email(const kiv_report* report, char** email) {
  return readText(report, email, [](const kiv::KivReport& r) { return r.email; });
}

kiv_status kiv_report_set_email(kiv_report* report, const char* email) {
  return guarded([&] { valueOf(report).email = optionalUtf8(email, "email"); });
}

kiv_status kiv_report_proof_status(const kiv_report* report, kiv_proof_status* status) {
  return readValue(report, status,
                   [](const kiv::KivReport& r) { return static_cast<kiv_proof_status>(r.proofStatus()); });
}

kiv_status kiv_report_file_count(const kiv_report* report, size_t* count) {
  return readValue(report, count, [](const kiv::KivReport& r) { return r.files.size(); });
}

kiv_status kiv_report_file_at(const kiv_report* report, size_t index, kiv_file** file) {
  return guarded([&] {
    const auto& files = valueOf(report).files;
    if (index >= files.size()) throw ArgumentError("no file at index " + std::to_string(index));
    giveHandle(file, files[index], "file");
  });
}

kiv_status kiv_report_add_file(kiv_report* report, const kiv_file* file) {
  return guarded([&] { valueOf(report).files.push_back(valueOf(file)); });
}

kiv_status kiv_report_calculate_hash(kiv_report* report) {
  return guarded([&] {
    kiv::KivReport& record = valueOf(report);
    record = record.withCalculatedHash();
  });
}

kiv_status kiv_report_pdf_path(const kiv_report* report, char** path) {
  return readText(report, path, [](const kiv::KivReport& r) {
    if (!zu::ZuFileManager::isPlainPathComponent(r.name + ".pdf")) {
      throw ArgumentError("\"" + r.name + "\" is not a plain file name");
    }
    return std::optional(r.pdfURL().path());
  });
}

// ---- The report store ----

kiv_status kiv_report_list_new(kiv_report_list** list) {
  return guarded([&] { giveHandle(list, std::vector<kiv::KivReport>{}, "list"); });
}

void kiv_report_list_free(kiv_report_list* list) { delete list; }

kiv_status kiv_store_load(kiv_report_list** list) {
  return guarded([&] { giveHandle(list, kiv::KivModel::loadFromStore(), "list"); });
}

kiv_status kiv_store_persist(const kiv_report_list* list) {
  return guarded([&] { kiv::KivModel::persist(valueOf(list)); });
}

kiv_status kiv_report_list_count(const kiv_report_list* list, size_t* count) {
  return readValue(list, count, [](const std::vector<kiv::KivReport>& reports) { return reports.size(); });
}

kiv_status kiv_report_list_at(const kiv_report_list* list, size_t index, kiv_report** report) {
  return guarded([&] { giveHandle(report, reportAt(list, index), "report"); });
}

kiv_status kiv_report_list_put(kiv_report_list* list, const kiv_report* report) {
  return guarded([&] {
    auto& reports = valueOf(list);
    const kiv::KivReport& record = valueOf(report);
    const auto same = std::find(reports.begin(), reports.end(), record);
    if (same == reports.end()) {
      reports.push_back(record);
    } else {
      *same = record;
    }
  });
}

kiv_status kiv_report_list_remove(kiv_report_list* list, size_t index) {
  return guarded([&] {
    reportAt(list, index);
    auto& reports = list->value;
    reports.erase(reports.begin() + static_cast<std::ptrdiff_t>(index));
  });
}

kiv_status kiv_report_list_find(const kiv_report_list* list, const char* selector, size_t* index) {
  return guarded([&] {
    const std::string text = utf8(selector, "selector");
    deref(index, "index") = take(kiv::findReport(valueOf(list), text));
  });
}

kiv_status kiv_report_list_check_new_name(const kiv_report_list* list, const char* name) {
  return guarded([&] { take(kiv::checkNewReportName(valueOf(list), utf8(name, "name"))); });
}

// ---- Bringing media in ----

kiv_status kiv_import_media_file(const char* path, const kiv_report* report, const kiv_report_list* reports,
                                 int flags, kiv_file** file) {
  return guarded([&] {
    const zu::URL source = zu::URL::fileURLWithPath(utf8(path, "path"));
    deref(file, "file");
    giveHandle(
        file,
        take(kiv::importMediaFile(source, valueOf(report), reportsOrNone(reports), importOptions(flags))),
        "file");
  });
}

kiv_status kiv_import_signed_media_file(const char* path, const kiv_report* report,
                                        const kiv_report_list* reports, int flags, kiv_file** file,
                                        char** statement) {
  return guarded([&] {
    const zu::URL source = zu::URL::fileURLWithPath(utf8(path, "path"));
    deref(file, "file");
    auto imported = take(kiv::KivProvenance::importSignedMediaFile(
        source, valueOf(report), reportsOrNone(reports), importOptions(flags)));
    if (statement != nullptr) *statement = newString(imported.statement);
    giveHandle(file, std::move(imported.file), "file");
  });
}

}  // extern "C"

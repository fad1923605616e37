// The records as the certification service reads and writes them: JSON objects with snake-case keys.
#include <utility>

#include "KivSDK/Model/KivFile.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "ZuDate/ZuDate.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kiv {
namespace {

using Dictionary = zu::AnyCodable::Dictionary;

std::string serviceDate(zu::Date date) { return zu::stringWithAPIFormat(date, zu::DateFormatterStyle::api); }

// A value of the wrong type counts as missing.
std::optional<std::string> text(const Dictionary& dict, std::string_view key) {
  const zu::AnyCodable* value = dict.find(key);
  if (!value || !value->stringValue()) return std::nullopt;
  return *value->stringValue();
}

zu::Date dateOrNow(const Dictionary& dict) {
  const auto written = text(dict, "original_created_at");
  const auto date = written ? zu::dateFromString(*written, zu::DateFormatterStyle::api) : std::nullopt;
  return date.value_or(zu::Date::now());
}

std::optional<Dictionary> object(const Dictionary& dict, std::string_view key) {
  const zu::AnyCodable* value = dict.find(key);
  if (!value || !value->dictionaryValue()) return std::nullopt;
  return *value->dictionaryValue();
}

void setIfPresent(Dictionary& dict, std::string key, const std::optional<std::string>& value) {
  if (value) dict.set(std::move(key), *value);
}

void setIfPresent(Dictionary& dict, std::string key, const std::optional<Dictionary>& value) {
  if (value) dict.set(std::move(key), *value);
}

}  // namespace

Dictionary KivFile::dictionaryRepresentation() const {
  Dictionary dict;
  dict.set("file_name", name + "." + ext);
  dict.set("original_created_at", serviceDate(dateTaken));
  setIfPresent(dict, "hash", hash);
  setIfPresent(dict, "slug", slug);
  setIfPresent(dict, "description", description);
  setIfPresent(dict, "meta_data", metadata());
  return dict;
}

std::optional<KivFile> KivFile::fromKivAPIResponseDict(const Dictionary& dict) {
  const auto fileName = text(dict, "file_name");
  if (!fileName) return std::nullopt;
  const auto dot = fileName->rfind('.');
  std::string name = fileName->substr(0, dot);
  std::string ext = dot == std::string::npos ? "" : fileName->substr(dot + 1);
  KivFile file(std::move(name), std::move(ext), dateOrNow(dict));
  if (!file.hasPlainFileName()) return std::nullopt;
  file.hash = text(dict, "hash");
  file.slug = text(dict, "slug");
  file.description = text(dict, "description");
  file.setMetadata(object(dict, "meta_data"));
  if (const auto remote = text(dict, "file")) file.remoteUrl = zu::URL::fromString(*remote);
  return file;
}

Dictionary KivReport::dictionaryRepresentation() const {
  Dictionary dict;
  dict.set("name", name);
  dict.set("original_created_at", serviceDate(created));
  zu::AnyCodable::Array provableFiles;
  for (const auto& file : files) provableFiles.emplace_back(file.dictionaryRepresentation());
  dict.set("provable_files", std::move(provableFiles));
  setIfPresent(dict, "note", note);
  setIfPresent(dict, "hash", hash);
  setIfPresent(dict, "slug", slug);
  setIfPresent(dict, "email", email);
  setIfPresent(dict, "meta_data", metadata());
  return dict;
}

std::optional<KivReport> KivReport::fromKivAPIResponseDict(const Dictionary& dict) {
  auto name = text(dict, "name");
  if (!name || !zu::ZuFileManager::isPlainPathComponent(*name)) return std::nullopt;
  KivReport report(std::move(*name));
  report.id.reset();  // the merge with the local copy keeps the local id
  report.created = dateOrNow(dict);
  report.slug = text(dict, "slug");
  report.hash = text(dict, "hash");
  report.note = text(dict, "note");
  report.setProofStatus(proofStatus(text(dict, "status").value_or("")));
  report.setMetadata(object(dict, "meta_data"));
  const zu::AnyCodable* files = dict.find("provable_files");
  if (files && files->arrayValue()) {
    for (const auto& element : *files->arrayValue()) {
      const auto* fileDict = element.dictionaryValue();
      if (!fileDict) continue;
      if (auto file = KivFile::fromKivAPIResponseDict(*fileDict)) report.files.push_back(std::move(*file));
    }
  }
  return report;
}

}  // namespace kiv

#include "ZuNetworking/detail/Journal.hpp"

#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <system_error>

#include "AnyCodable/JSONSerialization.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "ZuFoundation/UUID.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace zu::detail {
namespace {

constexpr std::string_view kSuffix = ".json";

// Identifiers are free text; anything but [A-Za-z0-9._-] is hex-escaped so the name stays one safe component.
std::string folderName(const std::string& identifier) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string name;
  for (unsigned char c : identifier) {
    if (std::isalnum(c) || c == '.' || c == '_' || c == '-') {
      name += static_cast<char>(c);
    } else {
      name += '%';
      name += kHex[c >> 4];
      name += kHex[c & 15];
    }
  }
  return name.empty() || name == "." || name == ".." ? "%" + name : name;
}

AnyCodable encode(const URLRequest& request, const std::optional<std::string>& uploadFile) {
  AnyCodable::Array headers;
  for (const auto& [name, value] : request.allHTTPHeaderFields.fields())
    headers.emplace_back(AnyCodable::Array{name, value});
  AnyCodable::Dictionary entry{{"url", request.url.absoluteString()},
                               {"method", request.httpMethod},
                               {"timeout", request.timeoutInterval},
                               {"headers", std::move(headers)}};
  if (uploadFile) entry.set("file", *uploadFile);
  return entry;
}

// JSON keeps no difference between 60 and 60.0: a whole time-out reads back as an integer.
std::optional<double> seconds(const AnyCodable* value) {
  if (!value) return std::nullopt;
  if (auto whole = value->intValue()) return static_cast<double>(*whole);
  return value->doubleValue();
}

std::optional<URLRequest> decodeRequest(const AnyCodable::Dictionary& entry) {
  const auto* urlText = entry.find("url");
  const auto* method = entry.find("method");
  const auto timeout = seconds(entry.find("timeout"));
  const auto* headers = entry.find("headers");
  if (!urlText || !urlText->stringValue() || !method || !method->stringValue() || !timeout || !headers ||
      !headers->arrayValue()) {
    return std::nullopt;
  }
  auto url = URL::fromString(*urlText->stringValue());
  if (!url) return std::nullopt;
  URLRequest request(*url, URLRequest::CachePolicy::useProtocolCachePolicy, *timeout);
  request.httpMethod = *method->stringValue();
  for (const auto& header : *headers->arrayValue()) {
    const auto* pair = header.arrayValue();
    if (!pair || pair->size() != 2 || !(*pair)[0].stringValue() || !(*pair)[1].stringValue())
      return std::nullopt;
    request.setValue(*(*pair)[1].stringValue(), *(*pair)[0].stringValue());
  }
  return request;
}

std::optional<Journal::Entry> read(const std::string& path) {
  const auto bytes = readWholeFile(path);
  if (!bytes) return std::nullopt;
  auto object = JSONSerialization::jsonObject(*bytes);
  const auto* entry = object ? object->dictionaryValue() : nullptr;
  if (!entry) return std::nullopt;
  auto request = decodeRequest(*entry);
  if (!request) return std::nullopt;
  std::optional<std::string> uploadFile;
  if (const auto* file = entry->find("file")) {
    if (!file->stringValue()) return std::nullopt;
    uploadFile = *file->stringValue();
  }
  return Journal::Entry{path, std::move(*request), std::move(uploadFile)};
}

}  // namespace

Journal::Journal(const std::string& identifier)
    : directory_(ZuFileManager::applicationDataDirectory() + "/URLSessions/" + folderName(identifier)) {}

std::string Journal::record(const URLRequest& request, const std::optional<std::string>& uploadFile) const {
  std::error_code ignored;
  std::filesystem::create_directories(directory_, ignored);
  auto bytes = JSONSerialization::data(encode(request, uploadFile));
  if (!bytes) return {};
  std::string path = directory_ + "/" + UUID().uuidString() + std::string(kSuffix);
  // A crash leaves either no entry or a whole one.
  if (!replaceFileDurably(path, path + ".partial", *bytes)) return {};
  return path;
}

std::vector<Journal::Entry> Journal::entries() const {
  std::vector<Entry> found;
  std::error_code error;
  for (const auto& file : std::filesystem::directory_iterator(directory_, error)) {
    std::string path = file.path().string();
    if (!path.ends_with(kSuffix)) continue;
    if (auto entry = read(path)) {
      found.push_back(std::move(*entry));
    } else {
      remove(path);
    }
  }
  return found;
}

void Journal::remove(const std::string& path) { ::unlink(path.c_str()); }

}  // namespace zu::detail

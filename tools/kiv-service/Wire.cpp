#include "Wire.hpp"

#include <regex>
#include <set>

#include <nlohmann/json.hpp>

namespace kiv::service {
namespace {

using nlohmann::json;

json parseObject(std::string_view body) {
  json value = parseJson(body);
  if (value.is_discarded() || !value.is_object()) throw BadRequest("The request body must be a JSON object.");
  return value;
}

const json* field(const json& object, const char* key) {
  auto found = object.find(key);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

std::string requiredText(const json& object, const char* key, std::string_view where = {}) {
  const json* value = field(object, key);
  if (!value || !value->is_string() || value->get_ref<const std::string&>().empty()) {
    throw BadRequest(std::string(where) + "'" + key + "' is required and must be non-empty text.");
  }
  return value->get<std::string>();
}

std::optional<std::string> optionalText(const json& object, const char* key, std::string_view where = {}) {
  const json* value = field(object, key);
  if (!value) return std::nullopt;
  if (!value->is_string()) throw BadRequest(std::string(where) + "'" + key + "' must be text.");
  return value->get<std::string>();
}

std::optional<std::string> optionalObject(const json& object, const char* key, std::string_view where = {}) {
  const json* value = field(object, key);
  if (!value) return std::nullopt;
  if (!value->is_object()) throw BadRequest(std::string(where) + "'" + key + "' must be an object.");
  return value->dump();
}

std::string date(const json& object, std::string_view where) {
  const json* value = field(object, "original_created_at");
  if (!value || !value->is_string() || !isWireTime(value->get_ref<const std::string&>())) {
    throw BadRequest(std::string(where) +
                     "'original_created_at' must be a UTC time like 2024-05-01T12:00:00Z.");
  }
  return value->get<std::string>();
}

std::optional<std::string> digest(const json& object, std::string_view where) {
  std::optional<std::string> hash = optionalText(object, "hash", where);
  if (hash && !isSha256Hex(*hash)) {
    throw BadRequest(std::string(where) + "'hash' must be 64 lower-case hexadecimal digits.");
  }
  return hash;
}

// Names travel back to clients that build local paths from them, so anything that is not a plain name is
// refused.
std::string plainFileName(const json& object, std::string_view where) {
  std::string name = requiredText(object, "file_name", where);
  const bool hasControl = std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20; });
  if (name == "." || name == ".." || name.find_first_of("/\\") != std::string::npos || hasControl) {
    throw BadRequest(std::string(where) + "'file_name' must be a plain file name without folders.");
  }
  return name;
}

FileRecord parseFile(const json& object, std::size_t index) {
  const std::string where = "provable_files[" + std::to_string(index) + "]: ";
  if (!object.is_object()) throw BadRequest(where + "each file must be an object.");
  FileRecord file;
  file.fileName = plainFileName(object, where);
  file.createdAt = date(object, where);
  file.hash = digest(object, where);
  file.description = optionalText(object, "description", where);
  file.metaData = optionalObject(object, "meta_data", where);
  return file;
}

json textOrNull(const std::optional<std::string>& text) { return text ? json(*text) : json(nullptr); }

json objectOrNull(const std::optional<std::string>& text) {
  return text ? json::parse(*text, nullptr, false) : json(nullptr);
}

Subscription parseSubscription(const json& object, std::size_t index) {
  const std::string where = "mailing_lists[" + std::to_string(index) + "]: ";
  if (!object.is_object()) throw BadRequest(where + "each mailing list must be an object.");
  Subscription subscription{requiredText(object, "name", where), requiredText(object, "status", where),
                            std::nullopt};
  if (subscription.status != "subscribed" && subscription.status != "unsubscribed") {
    throw BadRequest(where + "'status' must be \"subscribed\" or \"unsubscribed\".");
  }
  if (const json* fields = field(object, "merge_fields")) {
    const bool allText =
        fields->is_object() &&
        std::all_of(fields->begin(), fields->end(), [](const json& value) { return value.is_string(); });
    if (!allText) throw BadRequest(where + "'merge_fields' must be an object of texts.");
    subscription.mergeFields = fields->dump();
  }
  return subscription;
}

}  // namespace

json parseJson(std::string_view body) {
  // The parser itself keeps its own stack; it is the callback that stops it before the value grows deep.
  const json::parser_callback_t withinDepth = [](int depth, json::parse_event_t event, json&) {
    const bool opens =
        event == json::parse_event_t::object_start || event == json::parse_event_t::array_start;
    if (opens && depth >= kMaxJsonDepth) {
      throw BadRequest("The request body nests deeper than " + std::to_string(kMaxJsonDepth) + " levels.");
    }
    return true;
  };
  return json::parse(body, withinDepth, false);
}

ReportRecord parseReport(std::string_view body) {
  const json object = parseObject(body);
  ReportRecord report;
  report.name = requiredText(object, "name");
  report.createdAt = date(object, "");
  report.note = optionalText(object, "note");
  report.hash = digest(object, "");
  report.email = optionalText(object, "email");
  report.metaData = optionalObject(object, "meta_data");
  const json* files = field(object, "provable_files");
  if (!files || !files->is_array()) throw BadRequest("'provable_files' is required and must be a list.");
  std::set<std::string> names;
  for (std::size_t i = 0; i < files->size(); ++i) {
    report.files.push_back(parseFile((*files)[i], i));
    if (!names.insert(report.files.back().fileName).second) {
      throw BadRequest("'file_name' values must be unique within a report.");
    }
  }
  return report;
}

json renderReport(const ReportRecord& report, const FileUrl& fileUrl) {
  json files = json::array();
  for (const FileRecord& file : report.files) {
    json object = {{"slug", file.slug},
                   {"file_name", file.fileName},
                   {"original_created_at", file.createdAt},
                   {"hash", textOrNull(file.hash)},
                   {"description", textOrNull(file.description)},
                   {"meta_data", objectOrNull(file.metaData)}};
    if (std::optional<std::string> url = fileUrl(file)) object["file"] = *url;
    files.push_back(std::move(object));
  }
  return {{"status", report.status},
          {"slug", report.slug},
          {"name", report.name},
          {"original_created_at", report.createdAt},
          {"note", textOrNull(report.note)},
          {"meta_data", objectOrNull(report.metaData)},
          {"hash", textOrNull(report.hash)},
          {"provable_files", std::move(files)}};
}

NewsletterRequest parseNewsletter(std::string_view body) {
  const json object = parseObject(body);
  NewsletterRequest request;
  request.email = requiredText(object, "email");
  if (request.email.find('@') == std::string::npos) throw BadRequest("'email' must be an e-mail address.");
  const json* lists = field(object, "mailing_lists");
  if (!lists || !lists->is_array()) throw BadRequest("'mailing_lists' is required and must be a list.");
  for (std::size_t i = 0; i < lists->size(); ++i)
    request.subscriptions.push_back(parseSubscription((*lists)[i], i));
  return request;
}

json renderSubscriptions(const std::string& email, const std::vector<Subscription>& subscriptions) {
  json lists = json::array();
  for (const Subscription& subscription : subscriptions) {
    json list = {{"name", subscription.listName}, {"status", subscription.status}};
    if (subscription.mergeFields) list["merge_fields"] = objectOrNull(subscription.mergeFields);
    lists.push_back(std::move(list));
  }
  return {{"email", email}, {"mailing_lists", std::move(lists)}};
}

std::string parsePublicKey(std::string_view body) { return requiredText(parseObject(body), "public_key"); }

std::vector<std::string> parseStatementList(std::string_view body) {
  const json object = parseObject(body);
  const json* list = field(object, "statements");
  const bool wellFormed =
      list && list->is_array() && !list->empty() &&
      std::all_of(list->begin(), list->end(), [](const json& item) { return item.is_string(); });
  if (!wellFormed) throw BadRequest("'statements' is required and must be a non-empty list of JWS texts.");
  return list->get<std::vector<std::string>>();
}

json renderStatements(const std::vector<StatementRecord>& statements) {
  json list = json::array();
  for (const StatementRecord& statement : statements) {
    list.push_back({{"file_name", statement.fileName}, {"key_id", statement.key.keyId}});
  }
  return {{"statements", std::move(list)}};
}

bool isWireTime(const std::string& text) {
  static const std::regex pattern(
      R"(\d{4}-(0[1-9]|1[0-2])-(0[1-9]|[12]\d|3[01])T([01]\d|2[0-3]):[0-5]\d:[0-5]\dZ)");
  return std::regex_match(text, pattern);
}

bool isSha256Hex(const std::string& text) {
  static const std::regex pattern("[0-9a-f]{64}");
  return std::regex_match(text, pattern);
}

std::string detail(std::string_view text) { return json{{"detail", text}}.dump(); }

}  // namespace kiv::service

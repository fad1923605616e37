#include "Faults.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include <sys/socket.h>

#include <httplib.h>
#include <openssl/ssl.h>
#include <nlohmann/json.hpp>

namespace kiv::service {
namespace {

using nlohmann::json;

constexpr std::array<std::pair<Fault::Kind, std::string_view>, 8> kKindNames{{
    {Fault::Kind::delay, "delay"},
    {Fault::Kind::stall, "stall"},
    {Fault::Kind::reset, "reset"},
    {Fault::Kind::truncate, "truncate"},
    {Fault::Kind::nonJson, "non-json"},
    {Fault::Kind::status, "status"},
    {Fault::Kind::scalar, "scalar"},
    {Fault::Kind::fileName, "file-name"},
}};

std::optional<Fault::Kind> kindNamed(std::string_view name) {
  for (const auto& [kind, text] : kKindNames) {
    if (text == name) return kind;
  }
  return std::nullopt;
}

std::string_view nameOf(Fault::Kind kind) {
  for (const auto& [candidate, text] : kKindNames) {
    if (candidate == kind) return text;
  }
  return {};
}

constexpr std::chrono::minutes kDefaultStall{10};

// Zero linger turns the close that follows into a reset, which is what a crashed peer or a proxy cut looks
// like.
void dropConnection(const httplib::Request& request, bool halfClose) {
  if (!request.ssl) return;
  const int socket = SSL_get_fd(request.ssl);
  const linger abort{1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  if (halfClose) shutdown(socket, SHUT_RDWR);
}

// Stored files are answered through a content provider, JSON through the body; either way only the first half
// goes out. With `reset` the headers still announce the whole length and the connection is dropped after the
// half.
void cutBody(const httplib::Request& request, httplib::Response& response, bool reset) {
  if (!response.content_provider_) {
    response.content_length_ = response.body.size();
    response.content_provider_ = [body = std::move(response.body)](std::size_t offset, std::size_t length,
                                                                   httplib::DataSink& sink) {
      return sink.write(body.data() + offset, std::min(length, body.size() - offset));
    };
    response.body.clear();
  }
  const std::size_t half = response.content_length_ / 2;
  if (!reset) response.content_length_ = half;
  response.content_provider_ = [inner = std::move(response.content_provider_), half, reset, &request](
                                   std::size_t offset, std::size_t length, httplib::DataSink& sink) {
    if (offset < half) return inner(offset, std::min(length, half - offset), sink);
    if (reset) dropConnection(request, false);
    return false;
  };
}

void replaceFileNames(json& value, const std::string& name) {
  if (value.is_object()) {
    if (value.contains("file_name")) value["file_name"] = name;
    for (auto& [key, member] : value.items()) replaceFileNames(member, name);
  } else if (value.is_array()) {
    for (json& element : value) replaceFileNames(element, name);
  }
}

}  // namespace

std::optional<Fault> Fault::fromJson(const json& object) {
  if (!object.is_object() || !object.contains("kind") || !object["kind"].is_string()) return std::nullopt;
  std::optional<Kind> kind = kindNamed(object["kind"].get<std::string>());
  if (!kind) return std::nullopt;
  Fault fault;
  fault.kind = *kind;
  if (fault.kind == Kind::stall) fault.duration = kDefaultStall;
  try {
    if (object.contains("ms")) fault.duration = std::chrono::milliseconds(object["ms"].get<std::int64_t>());
    if (object.contains("status")) fault.status = object["status"].get<int>();
    if (object.contains("text")) fault.text = object["text"].get<std::string>();
    if (object.contains("times")) fault.times = object["times"].get<int>();
  } catch (const json::exception&) {
    return std::nullopt;
  }
  if (fault.status < 100 || fault.status > 599 || fault.times < 0 || fault.duration.count() < 0)
    return std::nullopt;
  return fault;
}

std::optional<Fault> Fault::fromText(std::string_view text) {
  const std::size_t colon = text.find(':');
  json object = {{"kind", std::string(text.substr(0, colon))}};
  if (colon != std::string_view::npos) {
    const std::string_view argument = text.substr(colon + 1);
    const std::string_view kind = text.substr(0, colon);
    if (kind == "file-name") {
      object["text"] = std::string(argument);
    } else {
      std::int64_t number = 0;
      const auto [end, error] = std::from_chars(argument.data(), argument.data() + argument.size(), number);
      if (error != std::errc() || end != argument.data() + argument.size()) return std::nullopt;
      object[kind == "status" ? "status" : "ms"] = number;
    }
  }
  return fromJson(object);
}

json Fault::toJson() const {
  return {
      {"kind", nameOf(kind)}, {"ms", duration.count()}, {"status", status}, {"text", text}, {"times", times}};
}

bool Faults::isRoute(std::string_view name) {
  static constexpr std::array<std::string_view, 15> routes{
      "create",     "patch",      "get",       "file-upload",  "force-status",
      "pdf",        "newsletter", "put",       "download",     "device-keys",
      "statements", "manifest",   "timestamp", "certificates", "*"};
  return std::find(routes.begin(), routes.end(), name) != routes.end();
}

void Faults::set(const std::string& route, Fault fault) {
  std::lock_guard lock(mutex_);
  faults_[route] = std::move(fault);
  ++generation_;
  changed_.notify_all();
}

void Faults::clear(const std::string& route) {
  std::lock_guard lock(mutex_);
  faults_.erase(route);
  ++generation_;
  changed_.notify_all();
}

json Faults::toJson() const {
  std::lock_guard lock(mutex_);
  json object = json::object();
  for (const auto& [route, fault] : faults_) object[route] = fault.toJson();
  return object;
}

std::optional<Fault> Faults::take(const std::string& route) {
  std::lock_guard lock(mutex_);
  auto found = faults_.find(route);
  if (found == faults_.end()) found = faults_.find("*");
  if (found == faults_.end()) return std::nullopt;
  Fault fault = found->second;
  if (fault.times > 0 && --found->second.times == 0) faults_.erase(found);
  return fault;
}

bool Faults::before(const Fault& fault, const httplib::Request& request) {
  if (fault.kind != Fault::Kind::delay && fault.kind != Fault::Kind::stall) return true;
  wait(fault.duration);
  if (fault.kind == Fault::Kind::delay) return true;
  dropConnection(request, true);
  return false;
}

void Faults::after(const Fault& fault, const httplib::Request& request, httplib::Response& response) {
  switch (fault.kind) {
    case Fault::Kind::delay:
    case Fault::Kind::stall:
      break;
    case Fault::Kind::reset:
      cutBody(request, response, true);
      break;
    case Fault::Kind::truncate:
      cutBody(request, response, false);
      break;
    case Fault::Kind::nonJson:
      response.set_content("<html><body><h1>Service temporarily unavailable</h1></body></html>", "text/html");
      break;
    case Fault::Kind::status:
      response.status = fault.status;
      response.set_content(json{{"detail", "Injected fault."}}.dump(), "application/json");
      break;
    case Fault::Kind::scalar:
      response.set_content("true", "application/json");
      break;
    case Fault::Kind::fileName: {
      json body = json::parse(response.body, nullptr, false);
      if (body.is_discarded()) break;
      replaceFileNames(body, fault.text);
      response.set_content(body.dump(), "application/json");
      break;
    }
  }
}

void Faults::shutdown() {
  std::lock_guard lock(mutex_);
  stopping_ = true;
  changed_.notify_all();
}

bool Faults::wait(std::chrono::milliseconds duration) {
  std::unique_lock lock(mutex_);
  const unsigned generation = generation_;
  return !changed_.wait_for(lock, duration, [&] { return stopping_ || generation_ != generation; });
}

}  // namespace kiv::service

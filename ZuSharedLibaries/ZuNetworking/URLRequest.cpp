#include "ZuNetworking/URLRequest.hpp"

#include <strings.h>

#include <algorithm>
#include <array>

namespace zu {
namespace {

bool sameName(std::string_view lhs, std::string_view rhs) {
  return lhs.size() == rhs.size() && ::strncasecmp(lhs.data(), rhs.data(), lhs.size()) == 0;
}

struct StatusText {
  int code;
  std::string_view text;
};

constexpr std::array kStatusTexts{
    StatusText{100, "continue"},
    StatusText{101, "switching protocols"},
    StatusText{200, "no error"},
    StatusText{201, "created"},
    StatusText{202, "accepted"},
    StatusText{203, "non-authoritative information"},
    StatusText{204, "no content"},
    StatusText{205, "reset content"},
    StatusText{206, "partial content"},
    StatusText{300, "multiple choices"},
    StatusText{301, "moved permanently"},
    StatusText{302, "found"},
    StatusText{303, "see other"},
    StatusText{304, "not modified"},
    StatusText{305, "use proxy"},
    StatusText{307, "temporarily redirected"},
    StatusText{400, "bad request"},
    StatusText{401, "unauthorized"},
    StatusText{402, "payment required"},
    StatusText{403, "forbidden"},
    StatusText{404, "not found"},
    StatusText{405, "method not allowed"},
    StatusText{406, "unacceptable"},
    StatusText{407, "proxy authentication required"},
    StatusText{408, "request timed out"},
    StatusText{409, "conflict"},
    StatusText{410, "no longer exists"},
    StatusText{411, "length required"},
    StatusText{412, "precondition failed"},
    StatusText{413, "request too large"},
    StatusText{414, "requested URL too long"},
    StatusText{415, "unsupported media type"},
    StatusText{416, "requested range not satisfiable"},
    StatusText{417, "expectation failed"},
    StatusText{500, "internal server error"},
    StatusText{501, "unimplemented"},
    StatusText{502, "bad gateway"},
    StatusText{503, "service unavailable"},
    StatusText{504, "gateway timed out"},
    StatusText{505, "unsupported version"},
};

}  // namespace

HTTPHeaderFields::Field* HTTPHeaderFields::find(std::string_view name) {
  auto it =
      std::find_if(fields_.begin(), fields_.end(), [&](const Field& f) { return sameName(f.first, name); });
  return it == fields_.end() ? nullptr : &*it;
}

std::optional<std::string> HTTPHeaderFields::value(std::string_view name) const {
  auto it =
      std::find_if(fields_.begin(), fields_.end(), [&](const Field& f) { return sameName(f.first, name); });
  if (it == fields_.end()) return std::nullopt;
  return it->second;
}

void HTTPHeaderFields::setValue(std::string value, std::string_view name) {
  if (Field* field = find(name)) {
    field->second = std::move(value);
  } else {
    fields_.emplace_back(std::string(name), std::move(value));
  }
}

void HTTPHeaderFields::addValue(std::string_view value, std::string_view name) {
  if (Field* field = find(name)) {
    field->second.append(",").append(value);
  } else {
    fields_.emplace_back(std::string(name), std::string(value));
  }
}

std::string HTTPURLResponse::localizedString(int forStatusCode) {
  for (const auto& entry : kStatusTexts) {
    if (entry.code == forStatusCode) return std::string(entry.text);
  }
  switch (forStatusCode / 100) {
    case 1:
      return "informational";
    case 2:
      return "success";
    case 3:
      return "redirected";
    case 4:
      return "client error";
    default:
      return "server error";
  }
}

}  // namespace zu

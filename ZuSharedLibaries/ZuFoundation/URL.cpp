#include "ZuFoundation/URL.hpp"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "ZuFoundation/internal/UniqueHandle.hpp"

namespace zu {

struct URL::Parts {
  std::string scheme;  // without ":"
  std::optional<std::string> authority;
  std::string path;  // percent-encoded
  std::optional<std::string> query;
  std::optional<std::string> fragment;
};

namespace {

constexpr std::string_view kSubDelimiters = "!$&'()*+,;=";
constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool isUnreserved(unsigned char c) { return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~'; }
bool isSubDelimiter(char c) { return kSubDelimiters.find(c) != std::string_view::npos; }
bool isPathCharacter(char c) {
  return isUnreserved(static_cast<unsigned char>(c)) || isSubDelimiter(c) || c == ':' || c == '@' || c == '/';
}
bool isQueryValueCharacter(char c) {
  return isUnreserved(static_cast<unsigned char>(c)) ||
         (isSubDelimiter(c) && c != '&' && c != '=' && c != '+') || c == ':' || c == '@' || c == '/' ||
         c == '?';
}
bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

template <class Allowed>
std::string percentEncoded(std::string_view text, Allowed allowed) {
  std::string encoded;
  encoded.reserve(text.size());
  for (char c : text) {
    if (allowed(c)) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += '%';
      encoded += kHexDigits[byte >> 4];
      encoded += kHexDigits[byte & 0x0F];
    }
  }
  return encoded;
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && isHexDigit(text[i + 1]) && isHexDigit(text[i + 2])) {
      decoded += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

// RFC 3986 characters only, every "%" starting an escape, at most one "#".
bool hasOnlyURLCharacters(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) return false;
    } else if (!isPathCharacter(c) && c != '?' && c != '#' && c != '[' && c != ']') {
      return false;
    }
  }
  return std::count(text.begin(), text.end(), '#') <= 1;
}

// The scheme's length when the text starts with "scheme:", 0 when it has none, nothing when the part before
// the first ":" cannot be a scheme (which a relative reference may not contain either).
std::optional<std::size_t> schemeLength(std::string_view text) {
  const auto colon = text.find(':');
  const auto firstDelimiter = text.find_first_of("/?#");
  if (colon == std::string_view::npos || colon > firstDelimiter) return 0;
  if (colon == 0 || !std::isalpha(static_cast<unsigned char>(text[0]))) return std::nullopt;
  const bool valid = std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(colon), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
  });
  if (!valid) return std::nullopt;
  return colon;
}

// One part of the URL as libcurl reads it; empty when curl cannot parse the URL or it has no such part.
std::string curlPart(const std::string& text, CURLUPart part) {
  const detail::UniqueHandle<CURLU, curl_url_cleanup> handle(curl_url());
  if (!handle ||
      curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return {};
  }
  char* value = nullptr;
  if (curl_url_get(handle.get(), part, &value, 0) != CURLUE_OK) return {};
  const detail::UniqueHandle<char, curl_free> owned(value);
  return value;
}

std::string trimmedTrailingSlash(std::string path) {
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::optional<URL> URL::fromString(std::string_view text) {
  if (text.empty() || !hasOnlyURLCharacters(text) || !schemeLength(text)) return std::nullopt;
  return URL(std::string(text));
}

URL URL::fileURLWithPath(std::string_view path, bool isDirectory) {
  std::string absolute(path);
  if (absolute.empty() || absolute.front() != '/') {
    const detail::UniqueHandle<char, std::free> cwd(getcwd(nullptr, 0));
    absolute = std::string(cwd ? cwd.get() : "/") + "/" + absolute;
  }
  if (isDirectory && absolute.back() != '/') absolute += '/';
  return URL("file://" + percentEncoded(absolute, isPathCharacter));
}

URL::Parts URL::split() const {
  Parts parts;
  std::string_view rest = text_;
  if (const std::size_t length = schemeLength(rest).value_or(0); length > 0) {
    parts.scheme = rest.substr(0, length);
    rest.remove_prefix(length + 1);
  }
  if (rest.starts_with("//")) {
    const auto end = std::min(rest.find_first_of("/?#", 2), rest.size());
    parts.authority = std::string(rest.substr(2, end - 2));
    rest.remove_prefix(end);
  }
  if (const auto hash = rest.find('#'); hash != std::string_view::npos) {
    parts.fragment = std::string(rest.substr(hash + 1));
    rest = rest.substr(0, hash);
  }
  if (const auto question = rest.find('?'); question != std::string_view::npos) {
    parts.query = std::string(rest.substr(question + 1));
    rest = rest.substr(0, question);
  }
  parts.path = std::string(rest);
  return parts;
}

URL URL::join(const Parts& parts) {
  std::string text;
  if (!parts.scheme.empty()) text += parts.scheme + ":";
  if (parts.authority) text += "//" + *parts.authority;
  text += parts.path;
  if (parts.query) text += "?" + *parts.query;
  if (parts.fragment) text += "#" + *parts.fragment;
  return URL(std::move(text));
}

std::string URL::scheme() const {
  std::string scheme = split().scheme;
  std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return scheme;
}

std::string URL::host() const { return curlPart(text_, CURLUPART_HOST); }

std::optional<int> URL::port() const {
  const std::string port = curlPart(text_, CURLUPART_PORT);
  if (port.empty()) return std::nullopt;
  return std::stoi(port);
}

std::string URL::path() const { return trimmedTrailingSlash(percentDecoded(split().path)); }

std::optional<std::string> URL::query() const { return split().query; }

std::vector<URL::QueryItem> URL::queryItems() const {
  std::vector<QueryItem> items;
  const auto query = this->query();
  if (!query || query->empty()) return items;
  std::string_view rest = *query;
  while (true) {
    const auto end = std::min(rest.find('&'), rest.size());
    const std::string_view item = rest.substr(0, end);
    const auto equals = item.find('=');
    items.emplace_back(percentDecoded(item.substr(0, equals)),
                       equals == std::string_view::npos ? "" : percentDecoded(item.substr(equals + 1)));
    if (end == rest.size()) break;
    rest.remove_prefix(end + 1);
  }
  return items;
}

std::string URL::lastPathComponent() const {
  std::string path = this->path();
  if (path == "/") return path;
  return path.substr(path.rfind('/') + 1);
}

std::string URL::pathExtension() const {
  const std::string last = lastPathComponent();
  const auto dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
  return last.substr(dot + 1);
}

URL URL::appendingPathComponent(std::string_view component, bool isDirectory) const {
  while (component.starts_with('/')) component.remove_prefix(1);
  Parts parts = split();
  if (!parts.path.ends_with('/') && (!parts.path.empty() || parts.authority)) parts.path += '/';
  parts.path += percentEncoded(component, isPathCharacter);
  if (isDirectory && !parts.path.ends_with('/')) parts.path += '/';
  return join(parts);
}

URL URL::appendingPathExtension(std::string_view extension) const {
  if (extension.empty()) return *this;
  Parts parts = split();
  const bool isDirectory = parts.path.size() > 1 && parts.path.ends_with('/');
  if (isDirectory) parts.path.pop_back();
  parts.path += "." + percentEncoded(extension, isPathCharacter);
  if (isDirectory) parts.path += '/';
  return join(parts);
}

URL URL::deletingLastPathComponent() const {
  Parts parts = split();
  const std::string path = trimmedTrailingSlash(parts.path);
  const auto slash = path.rfind('/');
  parts.path = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
  return join(parts);
}

URL URL::appendingQueryItems(const std::vector<QueryItem>& items) const {
  if (items.empty()) return *this;
  Parts parts = split();
  std::string query = parts.query.value_or("");
  for (const auto& [name, value] : items) {
    if (!query.empty()) query += '&';
    query += percentEncoded(name, isQueryValueCharacter) + "=" + percentEncoded(value, isQueryValueCharacter);
  }
  parts.query = std::move(query);
  return join(parts);
}

}  // namespace zu

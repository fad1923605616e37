#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zu {

/**
 * A URL value, the counterpart of the platform's `URL`. It keeps its text as given; its parts are read with
 * libcurl's URL parser.
 *
 * `fromString` follows the platform's `URL(string:)`: the empty text, and texts with characters that may
 * not appear in a URL (a space, a quote, angle brackets, a lone "%", ...), are no URL. A text without a
 * scheme is a relative reference and is kept as one.
 *
 * @code
 * auto folder = zu::URL::fileURLWithPath("/data/Documents", true);
 * auto photo = folder.appendingPathComponent("IMG 1").appendingPathExtension("jpg");
 * photo.path();            // "/data/Documents/IMG 1.jpg"
 * photo.absoluteString();  // "file:///data/Documents/IMG%201.jpg"
 * @endcode
 */
class URL {
 public:
  using QueryItem = std::pair<std::string, std::string>;

  /// Parses a URL text; nothing when the text is not a URL.
  static std::optional<URL> fromString(std::string_view text);
  /// The "file://" URL of an absolute path (a relative one is taken from the current directory); a
  /// directory URL ends with "/".
  static URL fileURLWithPath(std::string_view path, bool isDirectory = false);

  /// The URL's text.
  const std::string& absoluteString() const { return text_; }
  /// The scheme in lower case ("https", "file"); empty for a relative reference.
  std::string scheme() const;
  /// The host name, empty when there is none.
  std::string host() const;
  /// The port when the text names one.
  std::optional<int> port() const;
  /// The path, percent-decoded ("/a b/c.jpg"); a directory URL's path has no trailing "/".
  std::string path() const;
  /// The query text after "?", still percent-encoded; nothing when there is no "?".
  std::optional<std::string> query() const;
  /// The query's name=value pairs, percent-decoded, in order.
  std::vector<QueryItem> queryItems() const;
  bool isFileURL() const { return scheme() == "file"; }

  /// The last component of the path, percent-decoded.
  std::string lastPathComponent() const;
  /// The text after the last "." of the last path component; empty when there is none.
  std::string pathExtension() const;

  /// The URL with `component` added to its path; "/" inside `component` separates further components.
  URL appendingPathComponent(std::string_view component, bool isDirectory = false) const;
  /// The URL with "." and `extension` added to its last path component; unchanged for an empty extension.
  URL appendingPathExtension(std::string_view extension) const;
  /// The URL of the folder that holds the last path component (ending with "/").
  URL deletingLastPathComponent() const;
  /// The URL with `items` added after any query items it already has.
  URL appendingQueryItems(const std::vector<QueryItem>& items) const;

  friend bool operator==(const URL&, const URL&) = default;

 private:
  struct Parts;
  explicit URL(std::string text) : text_(std::move(text)) {}
  Parts split() const;
  static URL join(const Parts& parts);

  std::string text_;
};

}  // namespace zu

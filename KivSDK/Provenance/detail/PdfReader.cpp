#include "KivSDK/Provenance/detail/PdfReader.hpp"

#include <algorithm>
#include <charconv>
#include <limits>
#include <set>

#include "KivSDK/Provenance/ProvenanceError.hpp"

namespace kiv::detail {
namespace {

// "startxref" and its offset stand in the last bytes of the file; a kilobyte leaves room for comments.
constexpr std::size_t kTrailerWindow = 1024;

zu::Error unreadable(const std::string& what, std::size_t offset) {
  return ProvenanceError::make(ProvenanceError::malformed,
                               "not a readable PDF: " + what + " at byte " + std::to_string(offset));
}

bool isWhitespace(std::uint8_t c) {
  return c == 0 || c == '\t' || c == '\n' || c == '\f' || c == '\r' || c == ' ';
}

bool isDelimiter(std::uint8_t c) {
  return c == '(' || c == ')' || c == '<' || c == '>' || c == '[' || c == ']' || c == '{' || c == '}' ||
         c == '/' || c == '%';
}

bool isRegular(std::uint8_t c) { return !isWhitespace(c) && !isDelimiter(c); }

int hexValue(std::uint8_t c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads tokens and objects from a position of the file onwards.
class Parser {
 public:
  Parser(std::span<const std::uint8_t> bytes, std::size_t position) : bytes_(bytes), position_(position) {}

  std::size_t position() const { return position_; }

  // Skips white space and comments.
  void skipSpace() {
    while (position_ < bytes_.size()) {
      if (isWhitespace(bytes_[position_])) {
        ++position_;
      } else if (bytes_[position_] == '%') {
        while (position_ < bytes_.size() && bytes_[position_] != '\n' && bytes_[position_] != '\r')
          ++position_;
      } else {
        return;
      }
    }
  }

  // Consumes `word` when it is the next token.
  bool keyword(std::string_view word) {
    skipSpace();
    const std::size_t start = position_;
    if (regularRun() == word) return true;
    position_ = start;
    return false;
  }

  // The next token as an integer; nothing (and the position unchanged) when it is none.
  std::optional<std::int64_t> integer() {
    skipSpace();
    const std::size_t start = position_;
    const std::string_view run = regularRun();
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(run.data(), run.data() + run.size(), value);
    if (run.empty() || error != std::errc() || end != run.data() + run.size()) {
      position_ = start;
      return std::nullopt;
    }
    return value;
  }

  zu::Result<PdfObject> object(int depth) {
    if (depth > PdfDocument::maximumNesting) return unreadable("objects nested too deeply", position_);
    skipSpace();
    if (position_ >= bytes_.size()) return unreadable("the file ends inside an object", position_);
    const std::uint8_t c = bytes_[position_];
    if (c == '/') return name();
    if (c == '(') return literalString();
    if (c == '[') return array(depth);
    if (c == '<') {
      if (position_ + 1 < bytes_.size() && bytes_[position_ + 1] == '<') return dictionary(depth);
      return hexString();
    }
    if (isRegular(c)) return scalar();
    return unreadable("an unexpected '" + std::string(1, static_cast<char>(c)) + "'", position_);
  }

 private:
  std::string_view regularRun() {
    const std::size_t start = position_;
    while (position_ < bytes_.size() && isRegular(bytes_[position_])) ++position_;
    return {reinterpret_cast<const char*>(bytes_.data()) + start, position_ - start};
  }

  // A number, a reference ("12 0 R"), true, false or null.
  zu::Result<PdfObject> scalar() {
    const std::size_t start = position_;
    if (const auto number = integer()) {
      const std::size_t afterNumber = position_;
      const auto generation = integer();
      if (generation && keyword("R")) {
        const auto fits = [](std::int64_t n) {
          return n >= 0 && n <= std::numeric_limits<std::uint32_t>::max();
        };
        if (!fits(*number) || !fits(*generation)) return unreadable("a reference out of range", start);
        return PdfObject{
            PdfReference{static_cast<std::uint32_t>(*number), static_cast<std::uint32_t>(*generation)}};
      }
      position_ = afterNumber;
      return PdfObject{*number};
    }
    const std::string_view run = regularRun();
    if (run == "true") return PdfObject{true};
    if (run == "false") return PdfObject{false};
    if (run == "null") return PdfObject{};
    double real = 0;
    const auto [end, error] = std::from_chars(run.data(), run.data() + run.size(), real);
    if (!run.empty() && error == std::errc() && end == run.data() + run.size()) return PdfObject{real};
    return unreadable("an unknown token \"" + std::string(run.substr(0, 32)) + "\"", start);
  }

  zu::Result<PdfObject> name() {
    ++position_;  // "/"
    const std::size_t start = position_;
    const std::string_view run = regularRun();
    std::string text;
    for (std::size_t i = 0; i < run.size(); ++i) {
      if (run[i] != '#') {
        text.push_back(run[i]);
        continue;
      }
      const int high = i + 2 < run.size() ? hexValue(run[i + 1]) : -1;
      const int low = high >= 0 ? hexValue(run[i + 2]) : -1;
      if (low < 0) return unreadable("a name with a broken #-escape", start);
      text.push_back(static_cast<char>(high * 16 + low));
      i += 2;
    }
    return PdfObject{PdfName{std::move(text)}};
  }

  // The escape after a backslash in a literal string, appended to `out`.
  void escape(std::string& out) {
    const std::uint8_t c = bytes_[position_++];
    switch (c) {
      case 'n':
        out.push_back('\n');
        return;
      case 'r':
        out.push_back('\r');
        return;
      case 't':
        out.push_back('\t');
        return;
      case 'b':
        out.push_back('\b');
        return;
      case 'f':
        out.push_back('\f');
        return;
      case '\r':  // a line break after a backslash continues the string on the next line
        if (position_ < bytes_.size() && bytes_[position_] == '\n') ++position_;
        return;
      case '\n':
        return;
      default:
        break;
    }
    if (c < '0' || c > '7') {
      out.push_back(static_cast<char>(c));  // "\(", "\)", "\\", and a backslash before anything else
      return;
    }
    int value = c - '0';
    for (int digits = 1;
         digits < 3 && position_ < bytes_.size() && bytes_[position_] >= '0' && bytes_[position_] <= '7';
         ++digits) {
      value = value * 8 + (bytes_[position_++] - '0');
    }
    out.push_back(static_cast<char>(value & 0xff));
  }

  zu::Result<PdfObject> literalString() {
    PdfString string;
    string.begin = position_++;
    std::size_t open = 1;  // balanced parentheses belong to the string
    while (position_ < bytes_.size()) {
      const std::uint8_t c = bytes_[position_++];
      if (c == '\\') {
        if (position_ >= bytes_.size()) break;
        escape(string.bytes);
        continue;
      }
      if (c == '(') ++open;
      if (c == ')' && --open == 0) {
        string.end = position_;
        return PdfObject{std::move(string)};
      }
      string.bytes.push_back(static_cast<char>(c));
    }
    return unreadable("a string that does not end", string.begin);
  }

  zu::Result<PdfObject> hexString() {
    PdfString string;
    string.begin = position_++;
    int high = -1;
    while (position_ < bytes_.size()) {
      const std::uint8_t c = bytes_[position_++];
      if (c == '>') {
        if (high >= 0)
          string.bytes.push_back(static_cast<char>(high * 16));  // an odd last digit is followed by 0
        string.end = position_;
        return PdfObject{std::move(string)};
      }
      if (isWhitespace(c)) continue;
      const int value = hexValue(c);
      if (value < 0) return unreadable("a hexadecimal string with a non-hex digit", position_ - 1);
      if (high < 0) {
        high = value;
      } else {
        string.bytes.push_back(static_cast<char>(high * 16 + value));
        high = -1;
      }
    }
    return unreadable("a hexadecimal string that does not end", string.begin);
  }

  zu::Result<PdfObject> array(int depth) {
    const std::size_t start = position_++;
    PdfArray elements;
    while (true) {
      skipSpace();
      if (position_ >= bytes_.size()) return unreadable("an array that does not end", start);
      if (bytes_[position_] == ']') {
        ++position_;
        return PdfObject{std::move(elements)};
      }
      auto element = object(depth + 1);
      if (!element) return element;
      elements.push_back(std::move(*element));
    }
  }

  zu::Result<PdfObject> dictionary(int depth) {
    const std::size_t start = position_;
    position_ += 2;
    PdfDictionary entries;
    while (true) {
      skipSpace();
      if (position_ + 1 < bytes_.size() && bytes_[position_] == '>' && bytes_[position_ + 1] == '>') {
        position_ += 2;
        return PdfObject{std::move(entries)};
      }
      if (position_ >= bytes_.size() || bytes_[position_] != '/') {
        return unreadable("a dictionary key that is not a name", position_);
      }
      auto key = name();
      if (!key) return key;
      std::string text = std::move(std::get<PdfName>(key->value).text);
      if (entries.find(text)) return unreadable("a dictionary that repeats the key /" + text, start);
      auto value = object(depth + 1);
      if (!value) return value;
      entries.entries.emplace_back(std::move(text), std::move(*value));
    }
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t position_;
};

// The offset that the last "startxref" of the file gives.
zu::Result<std::size_t> lastCrossReferenceOffset(std::span<const std::uint8_t> bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const std::size_t windowStart = text.size() > kTrailerWindow ? text.size() - kTrailerWindow : 0;
  const std::size_t found = text.rfind("startxref");
  if (found == std::string_view::npos || found < windowStart)
    return unreadable("no startxref near the end", text.size());
  Parser parser(bytes, found + 9);
  const auto offset = parser.integer();
  if (!offset || *offset < 0 || static_cast<std::uint64_t>(*offset) >= bytes.size()) {
    return unreadable("a startxref offset outside the file", found);
  }
  return static_cast<std::size_t>(*offset);
}

}  // namespace

const PdfObject* PdfDictionary::find(std::string_view name) const {
  const auto found =
      std::find_if(entries.begin(), entries.end(), [&](const auto& entry) { return entry.first == name; });
  return found == entries.end() ? nullptr : &found->second;
}

zu::Result<PdfDocument> PdfDocument::open(std::span<const std::uint8_t> bytes) {
  PdfDocument document(bytes);
  const auto newest = lastCrossReferenceOffset(bytes);
  if (!newest) return newest.error();
  std::set<std::size_t> visited;
  std::optional<std::size_t> section = *newest;
  while (section) {
    if (!visited.insert(*section).second) return unreadable("cross-reference sections that loop", *section);
    if (visited.size() > maximumRevisions)
      return unreadable("more revisions than a certificate has", *section);
    auto trailer = document.readSection(*section);
    if (!trailer) return trailer.error();
    if (visited.size() == 1) document.trailer_ = *trailer;
    const PdfObject* previous = trailer->find("Prev");
    if (!previous) break;
    const std::int64_t* offset = previous->integer();
    if (!offset || *offset < 0 || static_cast<std::uint64_t>(*offset) >= bytes.size()) {
      return unreadable("a /Prev offset outside the file", *section);
    }
    section = static_cast<std::size_t>(*offset);
  }
  return document;
}

zu::Result<PdfDictionary> PdfDocument::readSection(std::size_t offset) {
  constexpr std::int64_t kLargestNumber = std::numeric_limits<std::uint32_t>::max();
  constexpr std::int64_t kLargestGeneration = 65535;
  Parser parser(bytes_, offset);
  if (!parser.keyword("xref")) {
    return unreadable("no cross-reference table (cross-reference streams are not read)", offset);
  }
  while (!parser.keyword("trailer")) {
    const auto first = parser.integer();
    const auto count = parser.integer();
    if (!first || !count || *first < 0 || *count < 0 || *first > kLargestNumber ||
        *count > kLargestNumber - *first) {
      return unreadable("a broken cross-reference subsection", parser.position());
    }
    // Each entry is read from the file's bytes before it is kept: a count the file does not back fails here.
    for (std::int64_t i = 0; i < *count; ++i) {
      const auto entryOffset = parser.integer();
      const auto generation = parser.integer();
      const bool inUse = parser.keyword("n");
      const bool valid =
          entryOffset && generation && *generation >= 0 && *generation <= kLargestGeneration &&
          (inUse ? *entryOffset >= 0 && static_cast<std::uint64_t>(*entryOffset) < bytes_.size()
                 : parser.keyword("f"));
      if (!valid) return unreadable("a broken cross-reference entry", parser.position());
      // A newer revision's entry for the object was read first, and stays.
      entries_.try_emplace(static_cast<std::uint32_t>(*first + i),
                           Entry{inUse ? static_cast<std::size_t>(*entryOffset) : 0,
                                 static_cast<std::uint32_t>(*generation), inUse});
    }
  }
  auto trailer = parser.object(0);
  if (!trailer) return trailer.error();
  PdfDictionary* dictionary = std::get_if<PdfDictionary>(&trailer->value);
  if (!dictionary) return unreadable("a trailer that is no dictionary", parser.position());
  return std::move(*dictionary);
}

zu::Result<PdfObject> PdfDocument::objectAt(const Entry& entry, std::uint32_t number) const {
  Parser parser(bytes_, entry.offset);
  const auto foundNumber = parser.integer();
  const auto foundGeneration = parser.integer();
  if (foundNumber != std::int64_t{number} || foundGeneration != std::int64_t{entry.generation} ||
      !parser.keyword("obj")) {
    return unreadable("no object " + std::to_string(number) + " where the cross-reference table puts it",
                      entry.offset);
  }
  auto object = parser.object(0);
  if (!object) return object;
  PdfDictionary* dictionary = std::get_if<PdfDictionary>(&object->value);
  if (!dictionary || !parser.keyword("stream")) return object;
  // The keyword is followed by CR LF or LF (a lone CR is tolerated), then the data.
  std::size_t data = parser.position();
  if (data < bytes_.size() && bytes_[data] == '\r') ++data;
  if (data < bytes_.size() && bytes_[data] == '\n') ++data;
  return PdfObject{PdfStream{std::move(*dictionary), data}};
}

zu::Result<PdfObject> PdfDocument::resolve(const PdfObject& value) const {
  const PdfReference* reference = value.reference();
  if (!reference) return value;
  const auto found = entries_.find(reference->number);
  if (found == entries_.end() || !found->second.inUse || found->second.generation != reference->generation) {
    return PdfObject{};
  }
  return objectAt(found->second, reference->number);
}

zu::Result<std::span<const std::uint8_t>> PdfDocument::streamData(const PdfStream& stream) const {
  if (stream.dictionary.find("Filter")) {
    return unreadable("a stream with a filter, which this reader does not decode", stream.dataOffset);
  }
  const PdfObject* lengthValue = stream.dictionary.find("Length");
  if (!lengthValue) return unreadable("a stream without /Length", stream.dataOffset);
  const auto length = resolve(*lengthValue);
  if (!length) return length.error();
  const std::int64_t* size = length->integer();
  if (!size || *size < 0 || static_cast<std::uint64_t>(*size) > bytes_.size() - stream.dataOffset) {
    return unreadable("a stream /Length outside the file", stream.dataOffset);
  }
  const std::size_t end = stream.dataOffset + static_cast<std::size_t>(*size);
  Parser after(bytes_, end);
  if (!after.keyword("endstream")) return unreadable("a stream whose /Length does not end at endstream", end);
  return bytes_.subspan(stream.dataOffset, static_cast<std::size_t>(*size));
}

}  // namespace kiv::detail

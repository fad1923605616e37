#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "ZuFoundation/Result.hpp"

// A small reader of the PDF objects a signed certificate is checked with (ISO 32000-1 section 7): the
// cross-reference tables of the file and its incremental updates, the trailer, and the indirect objects they
// point at, parsed on demand. It reads classic cross-reference tables only, and streams without filters.
//
// Every bound is explicit, because the file comes from anyone: nesting of arrays and dictionaries, the chain
// of cross-reference sections, and every length and offset against the file's size. Nothing recurses without
// a depth bound and nothing is allocated beyond what the file's own bytes hold.
namespace kiv::detail {

struct PdfObject;

struct PdfName {
  std::string text;
  friend bool operator==(const PdfName&, const PdfName&) = default;
};

/// A string's bytes, and where its token (with its delimiters) lies in the file: [begin, end).
struct PdfString {
  std::string bytes;
  std::size_t begin = 0;
  std::size_t end = 0;
};

struct PdfReference {
  std::uint32_t number = 0;
  std::uint32_t generation = 0;
};

using PdfArray = std::vector<PdfObject>;

struct PdfDictionary {
  // Declared here and defaulted once PdfObject is complete: a compiler may look at them while the variant
  // that holds a dictionary is being defined.
  PdfDictionary();
  PdfDictionary(const PdfDictionary& other);
  PdfDictionary(PdfDictionary&& other) noexcept;
  PdfDictionary& operator=(const PdfDictionary& other);
  PdfDictionary& operator=(PdfDictionary&& other) noexcept;
  ~PdfDictionary();

  std::vector<std::pair<std::string, PdfObject>> entries;
  /// The value of the key `name` (without "/"), null when absent.
  const PdfObject* find(std::string_view name) const;
};

/// A stream: its dictionary and where its data starts.
struct PdfStream {
  PdfDictionary dictionary;
  std::size_t dataOffset = 0;
};

struct PdfObject {
  std::variant<std::monostate, bool, std::int64_t, double, PdfName, PdfString, PdfArray, PdfDictionary,
               PdfReference, PdfStream>
      value;

  bool isNull() const { return std::holds_alternative<std::monostate>(value); }
  const std::int64_t* integer() const { return std::get_if<std::int64_t>(&value); }
  const PdfName* name() const { return std::get_if<PdfName>(&value); }
  const PdfString* string() const { return std::get_if<PdfString>(&value); }
  const PdfArray* array() const { return std::get_if<PdfArray>(&value); }
  const PdfDictionary* dictionary() const { return std::get_if<PdfDictionary>(&value); }
  const PdfReference* reference() const { return std::get_if<PdfReference>(&value); }
  const PdfStream* stream() const { return std::get_if<PdfStream>(&value); }
  /// Whether it is the name `text`.
  bool isName(std::string_view text) const { return name() && name()->text == text; }
};

inline PdfDictionary::PdfDictionary() = default;
inline PdfDictionary::PdfDictionary(const PdfDictionary& other) = default;
inline PdfDictionary::PdfDictionary(PdfDictionary&& other) noexcept = default;
inline PdfDictionary& PdfDictionary::operator=(const PdfDictionary& other) = default;
inline PdfDictionary& PdfDictionary::operator=(PdfDictionary&& other) noexcept = default;
inline PdfDictionary::~PdfDictionary() = default;

/**
 * A PDF file's objects as its last revision shows them: the newest cross-reference section first, then the
 * sections of the revisions before it, following /Prev.
 *
 * @par Thread Safety
 * Immutable once opened; it reads the bytes given to `open`, which must outlive it.
 */
class PdfDocument {
 public:
  /// Nesting of arrays and dictionaries beyond this is refused.
  static constexpr int maximumNesting = 32;
  /// Cross-reference sections (revisions) beyond this are refused.
  static constexpr int maximumRevisions = 64;

  /// Reads the file's trailer and cross-reference sections; fails with what is wrong with them.
  static zu::Result<PdfDocument> open(std::span<const std::uint8_t> bytes);

  const PdfDictionary& trailer() const { return trailer_; }
  std::span<const std::uint8_t> bytes() const { return bytes_; }

  /// The object a reference points at (parsed from the file), or `value` itself when it is no reference. A
  /// reference to an object the file does not hold is null, as the format says.
  zu::Result<PdfObject> resolve(const PdfObject& value) const;
  /// A stream's data; fails for a stream with filters, or whose length does not fit the file.
  zu::Result<std::span<const std::uint8_t>> streamData(const PdfStream& stream) const;

 private:
  struct Entry {
    std::size_t offset = 0;
    std::uint32_t generation = 0;
    bool inUse = false;
  };

  explicit PdfDocument(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
  /// Reads the cross-reference table at `offset` (entries a newer section gave stay) and answers its trailer.
  zu::Result<PdfDictionary> readSection(std::size_t offset);
  zu::Result<PdfObject> objectAt(const Entry& entry, std::uint32_t number) const;

  std::span<const std::uint8_t> bytes_;
  std::map<std::uint32_t, Entry> entries_;
  PdfDictionary trailer_;
};

}  // namespace kiv::detail

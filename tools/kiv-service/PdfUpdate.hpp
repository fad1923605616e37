#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace kiv::service {

/**
 * One incremental update appended to a PDF document (ISO 32000-1, 7.5.6): new objects, a rewritten catalog,
 * and a cross-reference section and trailer that point back to the previous ones with /Prev. The bytes of
 * the original document are never changed, so a signature over them stays valid.
 *
 * It reads documents whose last cross-reference section is a table, as cairo writes them, and refuses
 * anything else with std::runtime_error rather than guess.
 *
 * @code
 * PdfUpdate update(std::move(document));
 * const int font = update.reserve();
 * update.add(font, "<< /Type /Font ... >>");
 * update.setCatalog("<< ... >>");
 * std::string updated = update.finish();
 * @endcode
 */
class PdfUpdate {
 public:
  explicit PdfUpdate(std::string document);

  /// A fresh object number for an object added later.
  int reserve() { return nextNumber_++; }
  /// Appends object `number` (from `reserve`) with `body`, a dictionary or a stream; answers its offset.
  std::size_t add(int number, std::string_view body);
  /// Reserves a number and appends the object at once; answers the number.
  int add(std::string_view body);

  /// The catalog's dictionary as the document has it, "<< ... >>".
  const std::string& catalog() const { return catalog_; }
  /// Writes a new version of the catalog, under its own object number.
  void setCatalog(std::string_view dictionary) { add(root_, dictionary); }

  /// The document with the update, after its cross-reference section and trailer; call once.
  std::string finish();

 private:
  void readTrailer();
  std::size_t offsetOf(int number) const;
  void readCatalog();

  std::string document_;
  std::size_t previousXref_ = 0;
  std::string trailer_;
  int nextNumber_ = 0;
  int root_ = 0;
  std::string catalog_;
  std::map<int, std::size_t> added_;  // object number -> offset
};

/// A PDF literal string: `text` in parentheses with backslash, "(" and ")" escaped.
std::string pdfString(std::string_view text);

}  // namespace kiv::service

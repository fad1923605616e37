#include "PdfUpdate.hpp"

#include <algorithm>
#include <cstdio>
#include <regex>
#include <stdexcept>

namespace kiv::service {
namespace {

constexpr std::string_view kXrefEntryEnd = " \n";  // entries are 20 bytes: 10 + 1 + 5 + 1 + 1 + 2

[[noreturn]] void refuse(const std::string& what) { throw std::runtime_error("PDF update: " + what); }

std::string trailerEntry(const std::string& trailer, const char* pattern, const char* name) {
  std::smatch match;
  if (!std::regex_search(trailer, match, std::regex(pattern))) return {};
  if (match.size() < 2) refuse(std::string("the trailer's ") + name + " cannot be read");
  return match[1].str();
}

std::string xrefEntry(std::size_t offset) {
  char entry[21];
  static_cast<void>(std::snprintf(entry, sizeof entry, "%010zu 00000 n", offset));  // always fits
  return std::string(entry) + std::string(kXrefEntryEnd);
}

}  // namespace

PdfUpdate::PdfUpdate(std::string document) : document_(std::move(document)) {
  readTrailer();
  readCatalog();
  if (document_.back() != '\n') document_ += '\n';
}

std::size_t PdfUpdate::add(int number, std::string_view body) {
  const std::size_t offset = document_.size();
  added_[number] = offset;
  document_ += std::to_string(number) + " 0 obj\n";
  document_ += body;
  document_ += "\nendobj\n";
  return offset;
}

int PdfUpdate::add(std::string_view body) {
  const int number = reserve();
  add(number, body);
  return number;
}

// Subsections of consecutive numbers, then a trailer that keeps the document's /Root, /Info and /ID.
std::string PdfUpdate::finish() {
  const std::size_t xref = document_.size();
  std::string section = "xref\n";
  for (auto run = added_.begin(); run != added_.end();) {
    auto end = run;
    int count = 0;
    while (end != added_.end() && end->first == run->first + count) {
      ++end;
      ++count;
    }
    section += std::to_string(run->first) + " " + std::to_string(count) + "\n";
    for (; run != end; ++run) section += xrefEntry(run->second);
  }
  section += "trailer\n<< /Size " + std::to_string(nextNumber_) + " /Root " + std::to_string(root_) + " 0 R";
  for (const auto& [key, pattern] :
       {std::pair{"/Info", R"(/Info\s+(\d+\s+\d+\s+R))"}, std::pair{"/ID", R"(/ID\s*(\[[^\]]*\]))"}}) {
    const std::string value = trailerEntry(trailer_, pattern, key);
    if (!value.empty()) section += std::string(" ") + key + " " + value;
  }
  section +=
      " /Prev " + std::to_string(previousXref_) + " >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
  document_ += section;
  return std::move(document_);
}

void PdfUpdate::readTrailer() {
  // The end of the file, where the pointer to the last cross-reference section stands.
  static constexpr std::size_t kTail = 64;
  static const std::regex end(R"(startxref\s+(\d{1,15})\s+%%EOF\s*$)");
  const std::size_t tailStart = document_.size() - std::min(document_.size(), kTail);
  const std::string tail = document_.substr(tailStart);
  std::smatch match;
  if (!std::regex_search(tail, match, end)) refuse("the document does not end in startxref and %%EOF");
  const std::size_t startxref = tailStart + static_cast<std::size_t>(match.position(0));
  previousXref_ = std::stoul(match[1]);
  if (previousXref_ >= startxref || document_.compare(previousXref_, 4, "xref") != 0) {
    refuse("the last cross-reference section is not a table");
  }
  const std::size_t trailer = document_.find("trailer", previousXref_);
  if (trailer == std::string::npos || trailer > startxref) refuse("no trailer");
  trailer_ = document_.substr(trailer, startxref - trailer);
  const std::string size = trailerEntry(trailer_, R"(/Size\s+(\d+))", "/Size");
  const std::string root = trailerEntry(trailer_, R"(/Root\s+(\d+)\s+0\s+R)", "/Root");
  if (size.empty() || root.empty()) refuse("the trailer has no /Size or /Root");
  nextNumber_ = std::stoi(size);
  root_ = std::stoi(root);
}

// The offset of an object in the last cross-reference table: subsections of "first count" and 20-byte
// entries.
std::size_t PdfUpdate::offsetOf(int number) const {
  std::size_t cursor = document_.find('\n', previousXref_) + 1;
  static const std::regex subsection(R"(^(\d+) (\d+)\s*\n)");
  std::smatch match;
  while (std::regex_search(document_.cbegin() + static_cast<std::ptrdiff_t>(cursor), document_.cend(), match,
                           subsection, std::regex_constants::match_continuous)) {
    const int first = std::stoi(match[1]);
    const int count = std::stoi(match[2]);
    cursor += static_cast<std::size_t>(match.length(0));
    if (number >= first && number < first + count) {
      const std::string entry = document_.substr(cursor + static_cast<std::size_t>(number - first) * 20, 20);
      if (entry[17] != 'n') refuse("object " + std::to_string(number) + " is not in use");
      return std::stoul(entry.substr(0, 10));
    }
    cursor += static_cast<std::size_t>(count) * 20;
  }
  refuse("object " + std::to_string(number) + " is not in the last cross-reference table");
}

// The catalog is rewritten whole in the update, so its dictionary is kept as it stands; one that already
// holds what the update adds is refused rather than merged.
void PdfUpdate::readCatalog() {
  const std::size_t offset = offsetOf(root_);
  const std::string header = std::to_string(root_) + " 0 obj";
  if (document_.compare(offset, header.size(), header) != 0)
    refuse("the catalog is not where the table says");
  const std::size_t open = document_.find("<<", offset);
  const std::size_t end = document_.find("endobj", offset);
  const std::size_t close = document_.rfind(">>", end);
  if (open == std::string::npos || end == std::string::npos || close == std::string::npos || close < open) {
    refuse("the catalog is not a dictionary");
  }
  catalog_ = document_.substr(open, close + 2 - open);
  static const std::regex added(R"(/(AcroForm|Names)[\s/<\[(])");
  if (std::regex_search(catalog_, added)) refuse("the catalog already has /AcroForm or /Names");
}

std::string pdfString(std::string_view text) {
  std::string escaped = "(";
  for (char c : text) {
    if (c == '\\' || c == '(' || c == ')') escaped += '\\';
    escaped += c;
  }
  return escaped + ")";
}

}  // namespace kiv::service

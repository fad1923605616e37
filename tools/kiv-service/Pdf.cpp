#include "Pdf.hpp"

#include <algorithm>
#include <sstream>
#include <vector>

#include <cairo-pdf.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include "Handles.hpp"

namespace kiv::service {
namespace {

struct Texts {
  const char* title;
  const char* report;
  const char* slug;
  const char* status;
  const char* created;
  const char* reportDigest;
  const char* files;
  const char* taken;
  const char* verifyHeading;
  const char* verifyBody;
  const char* none;
  const char* pending;
  const char* confirmed;
  const char* failed;
};

constexpr Texts kEnglish{
    "Evidence certificate",
    "Report",
    "Slug",
    "Status",
    "Created",
    "Report digest (SHA-256)",
    "Files",
    "Taken",
    "How to verify",
    "Compute the SHA-256 digest of each file, for example with \"sha256sum FILE\", and "
    "compare it with the digest listed for it above. The report digest is the SHA-256 of "
    "the file digests, sorted in ascending order and joined without separators. The "
    "status is \"confirmed\" when the service received every file and each matched its "
    "declared digest.",
    "none",
    "pending",
    "confirmed",
    "failed"};

constexpr Texts kGerman{
    "Beweiszertifikat",
    "Bericht",
    "Kennung",
    "Status",
    "Erstellt",
    "Berichts-Prüfsumme (SHA-256)",
    "Dateien",
    "Aufgenommen",
    "So prüfen Sie",
    "Berechnen Sie die SHA-256-Prüfsumme jeder Datei, etwa mit \"sha256sum DATEI\", und vergleichen Sie sie "
    "mit der oben angegebenen Prüfsumme. Die Berichts-Prüfsumme ist die SHA-256 der aufsteigend sortierten "
    "und ohne Trennzeichen verbundenen Datei-Prüfsummen. Der Status ist \"bestätigt\", wenn der Dienst jede "
    "Datei erhalten hat und jede ihrer angegebenen Prüfsumme entsprach.",
    "keine",
    "ausstehend",
    "bestätigt",
    "fehlgeschlagen"};

const Texts& textsFor(Language language) { return language == Language::german ? kGerman : kEnglish; }

const char* statusText(const Texts& texts, const std::string& status) {
  if (status == "confirmed") return texts.confirmed;
  if (status == "failed") return texts.failed;
  return texts.pending;
}

// The service's wire time "2024-05-01T12:00:00Z" shown as "2024-05-01 12:00:00 UTC".
std::string displayTime(const std::string& wire) {
  if (wire.size() != 20) return wire;
  return wire.substr(0, 10) + " " + wire.substr(11, 8) + " UTC";
}

constexpr double kPageWidth = 595.28;  // A4 in points
constexpr double kPageHeight = 841.89;
constexpr double kMargin = 56.0;
constexpr double kTextWidth = kPageWidth - 2 * kMargin;

/// Writes lines of text down the page, starting a new page when one is full.
class Writer {
 public:
  explicit Writer(cairo_t* cairo) : cairo_(cairo) {}

  void line(const std::string& text, double size, bool bold = false, bool mono = false, double indent = 0) {
    font(size, bold, mono);
    newPageIfNeeded(size * 1.5);
    cairo_move_to(cairo_, kMargin + indent, y_);
    cairo_show_text(cairo_, fit(text, kTextWidth - indent).c_str());
    y_ += size * 1.5;
  }

  /// A paragraph broken into lines at spaces.
  void paragraph(const std::string& text, double size) {
    font(size, false, false);
    std::istringstream words(text);
    std::string current;
    std::string word;
    while (words >> word) {
      std::string candidate = current;
      if (!candidate.empty()) candidate += ' ';
      candidate += word;
      if (!current.empty() && width(candidate) > kTextWidth) {
        line(current, size);
        current = word;
      } else {
        current = candidate;
      }
    }
    if (!current.empty()) line(current, size);
  }

  void gap(double points) { y_ += points; }

  void rule() {
    newPageIfNeeded(12);
    cairo_set_line_width(cairo_, 0.5);
    cairo_move_to(cairo_, kMargin, y_ - 6);
    cairo_line_to(cairo_, kPageWidth - kMargin, y_ - 6);
    cairo_stroke(cairo_);
    y_ += 6;
  }

 private:
  void font(double size, bool bold, bool mono) {
    cairo_select_font_face(cairo_, mono ? "DejaVu Sans Mono" : "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cairo_, size);
  }

  double width(const std::string& text) {
    cairo_text_extents_t extents;
    cairo_text_extents(cairo_, text.c_str(), &extents);
    return extents.x_advance;
  }

  // Long names are cut at a character boundary and end in an ellipsis rather than running off the page.
  std::string fit(std::string text, double available) {
    if (width(text) <= available) return text;
    while (!text.empty() && width(text + "…") > available) {
      do {
        text.pop_back();
      } while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80);
      if (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0xC0) text.pop_back();
    }
    return text + "…";
  }

  void newPageIfNeeded(double height) {
    if (y_ + height <= kPageHeight - kMargin) return;
    cairo_show_page(cairo_);
    y_ = kMargin;
  }

  cairo_t* cairo_;
  double y_ = kMargin;
};

cairo_status_t appendTo(void* closure, const unsigned char* data, unsigned int length) {
  static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
  return CAIRO_STATUS_SUCCESS;
}

void drawCertificate(cairo_t* cairo, const ReportRecord& report, const Texts& texts) {
  Writer writer(cairo);
  writer.line(texts.title, 22, true);
  writer.gap(8);
  writer.line(std::string(texts.report) + ": " + report.name, 13, true);
  writer.line(std::string(texts.slug) + ": " + report.slug, 11);
  writer.line(std::string(texts.status) + ": " + statusText(texts, report.status), 11);
  writer.line(std::string(texts.created) + ": " + displayTime(report.createdAt), 11);
  writer.line(texts.reportDigest, 11);
  writer.line(report.hash.value_or(texts.none), 9, false, true, 12);
  writer.gap(10);
  writer.line(std::string(texts.files) + " (" + std::to_string(report.files.size()) + ")", 14, true);
  for (const FileRecord& file : report.files) {
    writer.rule();
    writer.line(file.fileName, 11, true);
    writer.line(std::string(texts.taken) + ": " + displayTime(file.createdAt), 10, false, false, 12);
    writer.line("SHA-256: " + file.hash.value_or(texts.none), 9, false, true, 12);
  }
  writer.gap(14);
  writer.line(texts.verifyHeading, 14, true);
  writer.paragraph(texts.verifyBody, 10);
}

}  // namespace

Language negotiateLanguage(std::string_view acceptLanguage) {
  double bestQuality = 0;
  Language best = Language::english;
  std::istringstream ranges{std::string(acceptLanguage)};
  std::string range;
  while (std::getline(ranges, range, ',')) {
    range.erase(std::remove(range.begin(), range.end(), ' '), range.end());
    double quality = 1;
    if (const std::size_t parameters = range.find(";q="); parameters != std::string::npos) {
      quality = std::atof(range.c_str() + parameters + 3);
      range.resize(parameters);
    }
    std::transform(range.begin(), range.end(), range.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    const std::string primary = range.substr(0, range.find('-'));
    if ((primary == "de" || primary == "en") && quality > bestQuality) {
      bestQuality = quality;
      best = primary == "de" ? Language::german : Language::english;
    }
  }
  return best;
}

std::string renderCertificate(const ReportRecord& report, Language language) {
  const Texts& texts = textsFor(language);
  std::string document;
  {
    Handle<cairo_surface_t, cairo_surface_destroy> surface(
        cairo_pdf_surface_create_for_stream(appendTo, &document, kPageWidth, kPageHeight));
    const std::string title = std::string(texts.title) + ": " + report.name;
    cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_TITLE, title.c_str());
    cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_CREATOR, "kiv-service");
    Handle<cairo_t, cairo_destroy> cairo(cairo_create(surface.get()));
    drawCertificate(cairo.get(), report, texts);
    cairo_show_page(cairo.get());
    // Finishing the surface flushes the last bytes into `document` before it is returned.
    cairo_surface_finish(surface.get());
  }
  return document;
}

}  // namespace kiv::service

namespace kiv::service {

void releaseRenderingCaches() {
  cairo_debug_reset_static_data();  // drops cairo's references into fontconfig first
  FcFini();
}

}  // namespace kiv::service

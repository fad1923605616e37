#include "Pdf.hpp"

#include <algorithm>
#include <array>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <cairo-pdf.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>
#include <qrencode.h>

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

// What a signed certificate says beyond the plain one.
struct ProvenanceTexts {
  struct Step {
    const char* what;
    const char* command;
  };
  const char* issuedBy;
  const char* on;
  const char* confirmed;
  const char* issuer;
  const char* issuerKey;
  const char* timeStamped;
  const char* deviceKey;
  const char* noStatement;
  const char* code;
  const char* verifyIntro;
  std::array<Step, 5> steps;
  const char* codeNote;
};

constexpr ProvenanceTexts kProvenanceEnglish{
    "Issued by",
    "on",
    "Confirmed",
    "Issuer",
    "Issuer key (SHA-256 of its public key)",
    "Time-stamped",
    "Device key",
    "no device statement",
    "Manifest code (as in the QR code)",
    "This document is signed by its issuer. The signature covers every byte, including three attached "
    "files: manifest.json (what was certified), manifest.jws (the same, signed with the issuer key above) "
    "and timestamp.tsr (an RFC 3161 time-stamp of manifest.jws). Everything can be checked offline against "
    "the issuer's CA certificate, ca.pem, which the service also serves at /v1/provenance/certificates/.",
    {{{"All checks at once: the signature, the manifest, the time-stamp, each device statement and each "
       "file's SHA-256:",
       "kiv verify --offline CERTIFICATE.pdf FILE... --ca ca.pem"},
      {"The document's signature:", "pdfsig CERTIFICATE.pdf"},
      {"The attachments, saved beside it:", "pdfdetach -saveall CERTIFICATE.pdf"},
      {"The time-stamp over the manifest:",
       "openssl ts -verify -data manifest.jws -in timestamp.tsr -CAfile ca.pem"},
      {"A file's digest, to compare with the list above:", "sha256sum FILE"}}},
    "The QR code holds kiv-manifest:<slug>:<SHA-256 of manifest.jws>."};

constexpr ProvenanceTexts kProvenanceGerman{
    "Ausgestellt von",
    "am",
    "Bestätigt",
    "Aussteller",
    "Schlüssel des Ausstellers (SHA-256 seines öffentlichen Schlüssels)",
    "Zeitstempel",
    "Geräteschlüssel",
    "keine Geräteerklärung",
    "Manifest-Code (wie im QR-Code)",
    "Dieses Dokument ist von seinem Aussteller signiert. Die Signatur deckt jedes Byte ab, auch die drei "
    "angehängten Dateien: manifest.json (was bestätigt wurde), manifest.jws (dasselbe, signiert mit dem oben "
    "genannten Schlüssel des Ausstellers) und timestamp.tsr (ein RFC-3161-Zeitstempel über manifest.jws). "
    "Alles lässt sich offline gegen das CA-Zertifikat des Ausstellers prüfen, ca.pem, das der Dienst auch "
    "unter /v1/provenance/certificates/ liefert.",
    {{{"Alle Prüfungen auf einmal: Signatur, Manifest, Zeitstempel, jede Geräteerklärung und die SHA-256 "
       "jeder Datei:",
       "kiv verify --offline ZERTIFIKAT.pdf DATEI... --ca ca.pem"},
      {"Die Signatur des Dokuments:", "pdfsig ZERTIFIKAT.pdf"},
      {"Die Anhänge, daneben abgelegt:", "pdfdetach -saveall ZERTIFIKAT.pdf"},
      {"Der Zeitstempel über dem Manifest:",
       "openssl ts -verify -data manifest.jws -in timestamp.tsr -CAfile ca.pem"},
      {"Die Prüfsumme einer Datei, zum Vergleich mit der Liste oben:", "sha256sum DATEI"}}},
    "Der QR-Code enthält kiv-manifest:<Kennung>:<SHA-256 von manifest.jws>."};

const ProvenanceTexts& provenanceTextsFor(Language language) {
  return language == Language::german ? kProvenanceGerman : kProvenanceEnglish;
}

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
  /// Writes from `top` down; a line that would pass `bottom` starts a new page.
  explicit Writer(cairo_t* cairo, double top = kMargin, double bottom = kPageHeight - kMargin)
      : cairo_(cairo), y_(top), bottom_(bottom) {}

  void line(const std::string& text, double size, bool bold = false, bool mono = false, double indent = 0) {
    font(size, bold, mono);
    newPageIfNeeded(size * 1.5);
    cairo_move_to(cairo_, kMargin + indent, y_);
    cairo_show_text(cairo_, fit(text, available(indent)).c_str());
    y_ += size * 1.5;
  }

  /// Keeps `width` points at the right of the text free down to `bottom` on this page, for a picture.
  void reserveRight(double width, double bottom) {
    reservedWidth_ = width;
    reservedBottom_ = bottom;
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
      if (!current.empty() && width(candidate) > available(0)) {
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

  double available(double indent) const {
    return kTextWidth - indent - (y_ < reservedBottom_ ? reservedWidth_ : 0);
  }

  void newPageIfNeeded(double height) {
    if (y_ + height <= bottom_) return;
    cairo_show_page(cairo_);
    y_ = kMargin;
    reservedBottom_ = 0;
  }

  cairo_t* cairo_;
  double y_;
  double bottom_;
  double reservedWidth_ = 0;
  double reservedBottom_ = 0;
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

constexpr double kCodeSize = 128;  // the QR code's side in points, quiet zone included
constexpr int kQuietModules = 4;

// The QR code's dark modules as filled squares on a white ground, its top left corner at (x, y).
void drawQrCode(cairo_t* cairo, const std::string& text, double x, double y) {
  Handle<QRcode, QRcode_free> code(QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_M, QR_MODE_8, 1));
  if (!code) throw std::runtime_error("the QR code cannot hold \"" + text + "\"");
  const double module = kCodeSize / (code->width + 2 * kQuietModules);
  cairo_save(cairo);
  cairo_set_source_rgb(cairo, 1, 1, 1);
  cairo_rectangle(cairo, x, y, kCodeSize, kCodeSize);
  cairo_fill(cairo);
  cairo_set_source_rgb(cairo, 0, 0, 0);
  for (int row = 0; row < code->width; ++row) {
    for (int column = 0; column < code->width; ++column) {
      if ((code->data[row * code->width + column] & 1) == 0) continue;
      cairo_rectangle(cairo, x + (column + kQuietModules) * module, y + (row + kQuietModules) * module,
                      module, module);
    }
  }
  cairo_fill(cairo);
  cairo_restore(cairo);
}

// Who issued it, when and for what, beside the QR code; then the details a checker compares.
void drawProvenanceHeader(cairo_t* cairo, Writer& writer, const ProvenancePage& page, const Texts& texts,
                          const ProvenanceTexts& provenance) {
  const double codeTop = kMargin - 22;
  drawQrCode(cairo, page.code, kPageWidth - kMargin - kCodeSize, codeTop);
  writer.reserveRight(kCodeSize + 12, codeTop + kCodeSize + 16);
  writer.line(texts.title, 22, true);
  writer.gap(6);
  writer.line(page.reportName, 15, true);
  writer.line(std::string(provenance.issuedBy) + " " + page.issuerName, 12);
  writer.line(std::string(provenance.on) + " " + displayTime(page.issuedAt), 12);
  writer.gap(4);
  writer.line(std::string(texts.status) + ": " + texts.confirmed, 11);
  writer.line(std::string(texts.files) + ": " + std::to_string(page.files.size()), 11);
  writer.gap(14);
  writer.line(std::string(texts.slug) + ": " + page.slug, 10);
  writer.line(std::string(texts.created) + ": " + displayTime(page.createdAt), 10);
  writer.line(std::string(provenance.confirmed) + ": " + displayTime(page.confirmedAt), 10);
  writer.line(std::string(provenance.timeStamped) + ": " + displayTime(page.issuedAt) + " (RFC 3161)", 10);
  writer.line(std::string(provenance.issuer) + ": " + page.issuerName, 10);
  writer.line(provenance.issuerKey, 10);
  writer.line(page.issuerKeyId, 9, false, true, 12);
}

// The QR code's text in the bottom margin of the first page, for a reader without a scanner.
void drawCodeFooter(cairo_t* cairo, const ProvenancePage& page, const ProvenanceTexts& provenance) {
  Writer footer(cairo, kPageHeight - kMargin + 18, kPageHeight);
  footer.line(provenance.code, 7);
  footer.line(page.code, 7, false, true);
}

void drawProvenanceCertificate(cairo_t* cairo, const ProvenancePage& page, const Texts& texts,
                               const ProvenanceTexts& provenance) {
  drawCodeFooter(cairo, page, provenance);
  Writer writer(cairo);
  drawProvenanceHeader(cairo, writer, page, texts, provenance);
  writer.gap(10);
  writer.line(std::string(texts.files) + " (" + std::to_string(page.files.size()) + ")", 14, true);
  for (const ProvenancePage::File& file : page.files) {
    writer.rule();
    writer.line(file.name, 11, true);
    if (file.dateTaken)
      writer.line(std::string(texts.taken) + ": " + displayTime(*file.dateTaken), 10, false, false, 12);
    writer.line("SHA-256: " + file.sha256, 9, false, true, 12);
    writer.line(std::string(provenance.deviceKey) + ": " + file.deviceKeyId.value_or(provenance.noStatement),
                9, false, file.deviceKeyId.has_value(), 12);
  }
  writer.gap(14);
  writer.line(texts.verifyHeading, 14, true);
  writer.paragraph(provenance.verifyIntro, 10);
  for (const ProvenanceTexts::Step& step : provenance.steps) {
    writer.gap(3);
    writer.paragraph(step.what, 10);
    writer.line(step.command, 9, false, true, 12);
  }
  writer.gap(3);
  writer.paragraph(provenance.codeNote, 10);
}

// A PDF document of A4 pages drawn by `draw`, with its title and creator in the document information.
std::string renderDocument(const std::string& title, const std::function<void(cairo_t*)>& draw) {
  std::string document;
  {
    Handle<cairo_surface_t, cairo_surface_destroy> surface(
        cairo_pdf_surface_create_for_stream(appendTo, &document, kPageWidth, kPageHeight));
    cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_TITLE, title.c_str());
    cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_CREATOR, "kiv-service");
    Handle<cairo_t, cairo_destroy> cairo(cairo_create(surface.get()));
    draw(cairo.get());
    cairo_show_page(cairo.get());
    // Finishing the surface flushes the last bytes into `document` before it is returned.
    cairo_surface_finish(surface.get());
  }
  return document;
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
  return renderDocument(std::string(texts.title) + ": " + report.name,
                        [&](cairo_t* cairo) { drawCertificate(cairo, report, texts); });
}

std::string renderProvenanceCertificate(const ProvenancePage& page, Language language) {
  const Texts& texts = textsFor(language);
  return renderDocument(std::string(texts.title) + ": " + page.reportName, [&](cairo_t* cairo) {
    drawProvenanceCertificate(cairo, page, texts, provenanceTextsFor(language));
  });
}

}  // namespace kiv::service

namespace kiv::service {

void releaseRenderingCaches() {
  cairo_debug_reset_static_data();  // drops cairo's references into fontconfig first
  FcFini();
}

}  // namespace kiv::service

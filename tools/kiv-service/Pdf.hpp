#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Model.hpp"

namespace kiv::service {

/// The languages certificates are written in; anything else falls back to English.
enum class Language { english, german };

/// The best supported language of an "Accept-Language" value ("de-CH, en;q=0.8" is German).
Language negotiateLanguage(std::string_view acceptLanguage);

/**
 * The report's certificate as a PDF document (A4, as many pages as the files need): name, slug, proof status,
 * creation time, report digest, every file with its name, time and SHA-256, and how to check them.
 */
std::string renderCertificate(const ReportRecord& report, Language language);

/// What a signed certificate shows, all of it from the report's manifest and its time-stamp.
struct ProvenancePage {
  struct File {
    std::string name;
    std::string sha256;
    std::optional<std::string> deviceKeyId;  ///< nothing when no device signed a statement for it
    std::optional<std::string> dateTaken;    ///< as the device stated it
  };
  std::string reportName;
  std::string slug;
  std::string createdAt;
  std::string confirmedAt;
  std::string issuedAt;  ///< the time-stamp's time
  std::string issuerName;
  std::string issuerKeyId;
  std::string code;  ///< the QR code's text
  std::vector<File> files;
};

/**
 * A confirmed report's certificate (A4, as many pages as the files need): who issued it and when, the
 * report, each file's digest and device key, a QR code of `code`, and how to check all of it offline.
 */
std::string renderProvenanceCertificate(const ProvenancePage& page, Language language);

/// Frees the fonts and caches that rendering keeps for the life of the process, so that a leak checker sees
/// every block returned at exit. Call once, when no certificate is being rendered any more.
void releaseRenderingCaches();

}  // namespace kiv::service

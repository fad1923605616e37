#pragma once

#include <string>
#include <string_view>

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

/// Frees the fonts and caches that rendering keeps for the life of the process, so that a leak checker sees
/// every block returned at exit. Call once, when no certificate is being rendered any more.
void releaseRenderingCaches();

}  // namespace kiv::service

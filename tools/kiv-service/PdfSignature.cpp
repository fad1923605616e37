#include "PdfSignature.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/cms.h>

#include "Crypto.hpp"
#include "Handles.hpp"
#include "PdfUpdate.hpp"

namespace kiv::service {
namespace {

// Room for the CMS signature in hex: a P-256 signature with one certificate takes about 1.5 KiB of DER.
constexpr std::size_t kContentsBytes = 8192;
// The byte range is written once the layout is known, into a placeholder of the same width.
constexpr int kRangeDigits = 10;
const std::string kRangePlaceholder = "/ByteRange [0 " + std::string(3 * (kRangeDigits + 1) - 1, '0') + "]";

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("PDF signature: ") + what);
}

// A name may hold any character but delimiters and "#" as "#xx": "application/json" is /application#2Fjson.
std::string pdfName(std::string_view text) {
  std::string name = "/";
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '.' || c == '-' || c == '+' || c == '_') {
      name += static_cast<char>(c);
    } else {
      constexpr std::string_view kHexDigits = "0123456789ABCDEF";
      name += '#';
      name += kHexDigits[c >> 4];
      name += kHexDigits[c & 0x0f];
    }
  }
  return name;
}

std::string reference(int number) { return std::to_string(number) + " 0 R"; }

std::string pdfDate(std::time_t now) {
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::array<char, 24> text{};
  static_cast<void>(std::strftime(text.data(), text.size(), "(D:%Y%m%d%H%M%SZ)", &utc));  // always fits
  return text.data();
}

// An embedded file stream, unfiltered, and the file entry (/Type /Filespec) that names it; answers the
// latter.
int addAttachment(PdfUpdate& update, const PdfAttachment& attachment) {
  const std::string size = std::to_string(attachment.content.size());
  const int stream =
      update.add("<< /Type /EmbeddedFile /Subtype " + pdfName(attachment.mimeType) + " /Length " + size +
                 " /Params << /Size " + size + " >> >>\nstream\n" + attachment.content + "\nendstream");
  const std::string name = pdfString(attachment.name);
  return update.add("<< /Type /Filespec /F " + name + " /UF " + name + " /Desc " +
                    pdfString(attachment.description) + " /EF << /F " + reference(stream) + " /UF " +
                    reference(stream) + " >> >>");
}

// The catalog as it was, with the attachments' name tree (sorted by name) and the signature's form.
std::string catalogWith(const std::string& catalog, const std::vector<std::pair<std::string, int>>& files,
                        int field) {
  std::string names;
  for (const auto& [name, entry] : files) names += pdfString(name) + " " + reference(entry) + " ";
  return catalog.substr(0, catalog.size() - 2) + " /Names << /EmbeddedFiles << /Names [ " + names +
         "] >> >> /AcroForm << /Fields [ " + reference(field) + " ] /SigFlags 3 >> >>";
}

std::string signatureDictionary(std::time_t now) {
  return "<< /Type /Sig /Filter /Adobe.PPKLite /SubFilter /adbe.pkcs7.detached /M " + pdfDate(now) + " " +
         kRangePlaceholder + " /Contents <" + std::string(2 * kContentsBytes, '0') + "> >>";
}

std::string cmsSignature(const std::string& signedBytes, X509* certificate, EVP_PKEY* key) {
  Handle<BIO, BIO_free> data(BIO_new_mem_buf(signedBytes.data(), static_cast<int>(signedBytes.size())));
  constexpr unsigned flags = CMS_DETACHED | CMS_BINARY | CMS_NOSMIMECAP;
  Handle<CMS_ContentInfo, CMS_ContentInfo_free> cms(
      CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL));
  check(cms && data, "CMS set-up");
  check(CMS_add1_signer(cms.get(), certificate, key, EVP_sha256(), flags) != nullptr, "CMS signer");
  check(CMS_final(cms.get(), data.get(), nullptr, flags) == 1, "CMS signing");
  unsigned char* der = nullptr;
  const int size = i2d_CMS_ContentInfo(cms.get(), &der);
  check(size > 0, "CMS encoding");
  std::string bytes(reinterpret_cast<char*>(der), static_cast<std::size_t>(size));
  OPENSSL_free(der);
  return bytes;
}

// Fills the byte range around the /Contents hex string of the signature at `signatureOffset`, then the
// signature itself over those two ranges.
void sign(std::string& document, std::size_t signatureOffset, X509* certificate, EVP_PKEY* key) {
  const std::size_t range = document.find(kRangePlaceholder, signatureOffset);
  const std::size_t open = document.find("/Contents <", signatureOffset) + 10;
  const std::size_t close = open + 2 * kContentsBytes + 1;
  check(range != std::string::npos && document[close] == '>', "the placeholders are not where written");
  const std::size_t after = close + 1;
  std::array<char, 64> numbers{};
  static_cast<void>(std::snprintf(numbers.data(), numbers.size(), "%-*zu %-*zu %-*zu", kRangeDigits, open,
                                  kRangeDigits, after, kRangeDigits, document.size() - after));
  document.replace(range + 14, 3 * (kRangeDigits + 1) - 1, numbers.data());
  const std::string signature =
      cmsSignature(document.substr(0, open) + document.substr(after), certificate, key);
  check(signature.size() <= kContentsBytes, "the signature does not fit its placeholder");
  const std::string hex = toHex(signature);
  document.replace(open + 1, hex.size(), hex);
}

}  // namespace

std::string signPdf(std::string document, std::vector<PdfAttachment> attachments, X509* certificate,
                    EVP_PKEY* key) {
  PdfUpdate update(std::move(document));
  std::sort(attachments.begin(), attachments.end(),
            [](const PdfAttachment& a, const PdfAttachment& b) { return a.name < b.name; });
  std::vector<std::pair<std::string, int>> files;
  files.reserve(attachments.size());
  for (const PdfAttachment& attachment : attachments) {
    files.emplace_back(attachment.name, addAttachment(update, attachment));
  }
  const int field = update.reserve();
  const int signature = update.reserve();
  update.add(field, "<< /Type /Annot /Subtype /Widget /FT /Sig /T (Signature1) /V " + reference(signature) +
                        " /F 132 /Rect [0 0 0 0] >>");
  update.setCatalog(catalogWith(update.catalog(), files, field));
  const std::size_t signatureOffset = update.add(signature, signatureDictionary(std::time(nullptr)));
  std::string updated = update.finish();
  sign(updated, signatureOffset, certificate, key);
  return updated;
}

}  // namespace kiv::service

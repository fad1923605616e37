#pragma once

#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace kiv::service {

/// A file carried inside a PDF, listed in the catalog's /EmbeddedFiles name tree.
struct PdfAttachment {
  std::string name;         ///< a plain ASCII file name
  std::string mimeType;     ///< e.g. "application/json"
  std::string description;  ///< shown by readers beside the name
  std::string content;
};

/**
 * Adds `attachments` and a signature over the whole document to a PDF written by cairo, as one incremental
 * update: an invisible signature field in a new /AcroForm, whose /Sig dictionary (/Adobe.PPKLite,
 * /adbe.pkcs7.detached) holds a DER CMS SignedData, detached, SHA-256, with the signed attributes content
 * type, message digest and signing time, and the signing certificate. Its /ByteRange covers every byte but
 * the /Contents hex string. Throws std::runtime_error.
 */
std::string signPdf(std::string document, std::vector<PdfAttachment> attachments, X509* certificate,
                    EVP_PKEY* key);

}  // namespace kiv::service

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "KivSDK/Provenance/detail/PdfReader.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

// What a signed certificate PDF carries for offline checks: its one signature and its attachments.
namespace kiv::detail {

/// The signature dictionary of the document's signature field.
struct PdfSignature {
  std::string subFilter;
  /// /ByteRange: pairs of offset and length.
  std::vector<std::int64_t> byteRange;
  /// /Contents: the CMS SignedData (DER), zero-padded; and where its hex string lies in the file.
  std::string contents;
  std::size_t contentsBegin = 0;
  std::size_t contentsEnd = 0;
};

/// The signature of the one signed field of the catalog's /AcroForm; fails when there is none or more.
zu::Result<PdfSignature> readSignature(const PdfDocument& document);

/// The embedded files of the catalog's /Names /EmbeddedFiles name tree, by name; fails when the tree or a
/// file in it cannot be read, or when a name is given twice.
zu::Result<std::map<std::string, zu::Data>> readAttachments(const PdfDocument& document);

}  // namespace kiv::detail

#include "support/Tampering.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "KivSDK/Provenance/DeviceSigner.hpp"
#include "KivSDK/Provenance/FileStatement.hpp"
#include "KivSDK/Provenance/detail/Base64Url.hpp"
#include "KivSDK/Provenance/detail/CanonicalJSON.hpp"
#include "KivSDK/Provenance/detail/JWS.hpp"
#include "KivSDK/Provenance/detail/PdfReader.hpp"
#include "support/CertificateMaker.hpp"
#include "support/TemporaryDirectory.hpp"

namespace kivtest {
namespace {

namespace fs = std::filesystem;
using kiv::detail::PdfDocument;
using kiv::detail::PdfObject;

PdfDocument opened(const zu::Data& pdf) {
  auto document = PdfDocument::open(pdf);
  if (!document)
    throw std::runtime_error("the genuine PDF does not open: " + document.error().localizedDescription());
  return std::move(*document);
}

PdfObject at(const PdfDocument& document, const PdfObject& from, std::initializer_list<const char*> path) {
  PdfObject object = *document.resolve(from);
  for (const char* key : path) {
    const PdfObject* next = object.dictionary() ? object.dictionary()->find(key) : nullptr;
    if (!next) throw std::runtime_error(std::string("no /") + key + " in the genuine PDF");
    object = *document.resolve(*next);
  }
  return object;
}

PdfObject catalog(const PdfDocument& document) {
  return at(document, PdfObject{document.trailer()}, {"Root"});
}

// The embedded file stream's reference of the attachment `name`, from the names tree's root node.
kiv::detail::PdfReference attachmentReference(const PdfDocument& document, const std::string& name) {
  const PdfObject tree = at(document, catalog(document), {"Names", "EmbeddedFiles"});
  const PdfObject names = at(document, tree, {"Names"});
  for (std::size_t i = 0; names.array() && i + 1 < names.array()->size(); i += 2) {
    if ((*names.array())[i].string()->bytes != name) continue;
    const PdfObject entry = *document.resolve((*names.array())[i + 1]);
    const PdfObject* files = entry.dictionary()->find("EF");
    return *files->dictionary()->find("F")->reference();
  }
  throw std::runtime_error("no attachment " + name);
}

// The offset of the middle byte of a stream's data, compressed or not.
std::size_t middleOf(const PdfDocument& document, const PdfObject& stream) {
  const auto length = document.resolve(*stream.stream()->dictionary.find("Length"));
  if (!length || !length->integer() || *length->integer() <= 0) throw std::runtime_error("an empty stream");
  return stream.stream()->dataOffset + static_cast<std::size_t>(*length->integer()) / 2;
}

zu::Data flippedAt(zu::Data bytes, std::size_t offset) {
  bytes[offset] ^= 0x01;
  return bytes;
}

// Appends an incremental update that defines the objects `bodies` (number to "<< ... >>" or stream text).
zu::Data withUpdate(const zu::Data& pdf, const std::map<std::uint32_t, std::string>& bodies) {
  const PdfDocument document = opened(pdf);
  const std::string text(pdf.begin(), pdf.end());
  const std::size_t previous = std::stoul(text.substr(text.rfind("startxref") + 9));
  std::string update = "\n";
  std::map<std::uint32_t, std::size_t> offsets;
  for (const auto& [number, body] : bodies) {
    offsets[number] = pdf.size() + update.size();
    update += std::to_string(number) + " 0 obj\n" + body + "\nendobj\n";
  }
  const std::size_t xref = pdf.size() + update.size();
  update += "xref\n";
  for (const auto& [number, offset] : offsets) {
    update += std::to_string(number) + " 1\n" + xrefEntry(offset);
  }
  const PdfObject* root = document.trailer().find("Root");
  const std::int64_t size =
      std::max<std::int64_t>(*document.trailer().find("Size")->integer(), offsets.rbegin()->first + 1);
  update += "trailer\n<< /Size " + std::to_string(size) + " /Root " +
            std::to_string(root->reference()->number) + " 0 R /Prev " + std::to_string(previous) +
            " >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
  zu::Data updated = pdf;
  updated.insert(updated.end(), update.begin(), update.end());
  return updated;
}

// The manifest with the first file's statement replaced: its JSON and its JWS (keeping the old signature,
// which no longer matches), as an attacker without the service's key would make them.
zu::Data withFirstStatement(const GenuineSet& set, const std::string& statement) {
  const std::string jws = attachmentText(set.pdf, "manifest.jws");
  auto manifest = kiv::detail::readJWS(jws, "ES256");
  zu::AnyCodable::Dictionary payload = manifest->payload;
  zu::AnyCodable::Array files = *payload.find("files")->arrayValue();
  zu::AnyCodable::Dictionary first = *files.front().dictionaryValue();
  first.set("statement", statement);
  files.front() = first;
  payload.set("files", files);
  const std::string json = *kiv::detail::canonicalJSON(zu::AnyCodable(payload));
  const std::string header = jws.substr(0, jws.find('.'));
  const std::string forged = header + "." + kiv::detail::base64UrlEncode(json) + jws.substr(jws.rfind('.'));
  return withReplacedAttachments(set.pdf, {{"manifest.json", json}, {"manifest.jws", forged}});
}

// The media folder copied to `scratch`, with `change` applied to the copy.
std::vector<std::string> changedMedia(const GenuineSet& set, const fs::path& scratch,
                                      const std::function<void(const fs::path& copy)>& change) {
  const fs::path copy = scratch / "media";
  fs::create_directories(copy);
  for (const auto& entry : fs::directory_iterator(set.media))
    fs::copy_file(entry.path(), copy / entry.path().filename());
  change(copy);
  return {copy.string()};
}

Presented genuine(const GenuineSet& set, const fs::path&) { return {set.pdf, {set.media.string()}}; }

}  // namespace

std::string attachmentText(const zu::Data& pdf, const std::string& name) {
  const PdfDocument document = opened(pdf);
  const auto data =
      document.streamData(*document.resolve(PdfObject{attachmentReference(document, name)})->stream());
  return {data->begin(), data->end()};
}

zu::Data withReplacedAttachments(const zu::Data& pdf, const std::map<std::string, std::string>& replaced) {
  const PdfDocument document = opened(pdf);
  std::map<std::uint32_t, std::string> bodies;
  for (const auto& [name, content] : replaced) {
    bodies[attachmentReference(document, name).number] = "<< /Type /EmbeddedFile /Length " +
                                                         std::to_string(content.size()) + " >>\nstream\n" +
                                                         content + "\nendstream";
  }
  return withUpdate(pdf, bodies);
}

std::vector<Tamper> tampers() {
  return {
      {"genuine", genuine, "", ""},
      {"media_byte_changed",
       [](const GenuineSet& set, const fs::path& scratch) {
         return Presented{set.pdf, changedMedia(set, scratch, [&](const fs::path& copy) {
                            const fs::path file = copy / set.fileNames.front();
                            const std::string content = testing_support::readFile(file);
                            testing_support::writeFile(file, content.substr(0, content.size() / 2) + "#" +
                                                                 content.substr(content.size() / 2 + 1));
                          })};
       },
       "file:<file>", "has SHA-256"},
      {"file_swapped_for_another_reports",
       [](const GenuineSet& set, const fs::path& scratch) {
         return Presented{set.pdf, changedMedia(set, scratch, [&](const fs::path& copy) {
                            fs::copy_file(set.otherFile, copy / set.fileNames.front(),
                                          fs::copy_options::overwrite_existing);
                          })};
       },
       "file:<file>", "has SHA-256"},
      {"statement_swapped_for_another_reports",
       [](const GenuineSet& set, const fs::path&) {
         return Presented{withFirstStatement(set, set.otherStatement), {set.media.string()}};
       },
       "statement:<file>", "the statement is about "},
      {"pdf_text_edited",
       [](const GenuineSet& set, const fs::path&) {
         const PdfDocument document = opened(set.pdf);
         const PdfObject page =
             *document.resolve((*at(document, catalog(document), {"Pages", "Kids"}).array())[0]);
         return Presented{flippedAt(set.pdf, middleOf(document, at(document, page, {"Contents"}))),
                          {set.media.string()}};
       },
       "pdf-signature", "the signed bytes were changed after signing"},
      {"pdf_attachment_edited",
       [](const GenuineSet& set, const fs::path&) {
         const PdfDocument document = opened(set.pdf);
         const PdfObject stream =
             *document.resolve(PdfObject{attachmentReference(document, "manifest.json")});
         return Presented{flippedAt(set.pdf, middleOf(document, stream)), {set.media.string()}};
       },
       "pdf-signature", "the signed bytes were changed after signing"},
      {"pdf_update_appended",
       [](const GenuineSet& set, const fs::path&) {
         return Presented{withUpdate(set.pdf, {{999999, "<< /Title (changed after signing) >>"}}),
                          {set.media.string()}};
       },
       "pdf-coverage", "bytes were added after the signed range"},
      {"manifest_resigned_by_another_key",
       [](const GenuineSet& set, const fs::path&) {
         const std::string jws = attachmentText(set.pdf, "manifest.jws");
         const auto manifest = kiv::detail::readJWS(jws, "ES256");
         const PKey other = newP256Key();
         const std::string forged =
             manifestJWS(manifest->payload, other.get(), kiv::detail::fingerprintOf(other.get()));
         return Presented{withReplacedAttachments(set.pdf, {{"manifest.jws", forged}}), {set.media.string()}};
       },
       "manifest-signature", "manifest.jws names key "},
      {"timestamp_of_another_manifest",
       [](const GenuineSet& set, const fs::path&) {
         const std::string other(set.otherTimestamp.begin(), set.otherTimestamp.end());
         return Presented{withReplacedAttachments(set.pdf, {{"timestamp.tsr", other}}), {set.media.string()}};
       },
       "timestamp", "over other data than manifest.jws"},
      {"statement_by_unregistered_key",
       [](const GenuineSet& set, const fs::path& scratch) {
         const auto stranger = kiv::DeviceKey::at((scratch / "stranger.pem").string());
         const std::string jws = attachmentText(set.pdf, "manifest.jws");
         const auto manifest = kiv::detail::readJWS(jws, "ES256");
         const zu::AnyCodable::Dictionary& first =
             *manifest->payload.find("files")->arrayValue()->front().dictionaryValue();
         const auto genuine = kiv::FileStatement::read(*first.find("statement")->stringValue());
         kiv::FileStatement statement = *genuine;
         statement.keyId = (*stranger)->keyId();
         return Presented{withFirstStatement(set, *statement.sign(**stranger)), {set.media.string()}};
       },
       "statement:<file>", "which is not among the manifest's registered device keys"},
      {"missing_file",
       [](const GenuineSet& set, const fs::path& scratch) {
         return Presented{set.pdf, changedMedia(set, scratch, [&](const fs::path& copy) {
                            fs::remove(copy / set.fileNames.front());
                          })};
       },
       "file:<file>", "missing: the manifest lists it, but it is not among the given files"},
  };
}

std::string checkName(const Tamper& tamper, const GenuineSet& set) {
  std::string name = tamper.failingCheck;
  const auto placeholder = name.find("<file>");
  if (placeholder != std::string::npos) name.replace(placeholder, 6, set.fileNames.front());
  return name;
}

}  // namespace kivtest

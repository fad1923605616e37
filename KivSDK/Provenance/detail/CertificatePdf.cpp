#include "KivSDK/Provenance/detail/CertificatePdf.hpp"

#include <functional>

#include "KivSDK/Provenance/ProvenanceError.hpp"

namespace kiv::detail {
namespace {

// Bounds on walking trees of the document (form fields, names): how deep, and how many nodes in all. A
// certificate has a handful of each; a hostile file could make them loop or fan out.
constexpr int kDeepestTree = 16;
constexpr int kMostNodes = 4096;

zu::Error missing(const std::string& what) {
  return ProvenanceError::make(ProvenanceError::malformed, "the PDF has no " + what);
}

// The value under `key` of `dictionary`, resolved; null when absent.
zu::Result<PdfObject> member(const PdfDocument& document, const PdfDictionary& dictionary,
                             std::string_view key) {
  const PdfObject* value = dictionary.find(key);
  return value ? document.resolve(*value) : PdfObject{};
}

zu::Result<PdfDictionary> catalog(const PdfDocument& document) {
  auto root = member(document, document.trailer(), "Root");
  if (!root) return root.error();
  if (!root->dictionary()) return missing("document catalog (/Root)");
  return *root->dictionary();
}

// Visits every node of a tree whose children are under `childrenKey`, depth first, within the bounds.
class TreeWalk {
 public:
  using Visit = std::function<zu::Result<void>(const PdfDictionary& node)>;
  TreeWalk(const PdfDocument& document, std::string_view childrenKey, Visit visit)
      : document_(document), childrenKey_(childrenKey), visit_(std::move(visit)) {}

  zu::Result<void> walk(const PdfObject& node, int depth) {
    if (depth > kDeepestTree || ++nodes_ > kMostNodes) {
      return ProvenanceError::make(
          ProvenanceError::malformed,
          "the PDF's " + std::string(childrenKey_) + " tree is deeper or larger than a certificate's");
    }
    auto resolved = document_.resolve(node);
    if (!resolved) return resolved.error();
    const PdfDictionary* dictionary = resolved->dictionary();
    if (!dictionary) return {};
    if (auto visited = visit_(*dictionary); !visited) return visited;
    auto children = member(document_, *dictionary, childrenKey_);
    if (!children) return children.error();
    if (!children->array()) return {};
    for (const PdfObject& child : *children->array()) {
      if (auto walked = walk(child, depth + 1); !walked) return walked;
    }
    return {};
  }

 private:
  const PdfDocument& document_;
  std::string_view childrenKey_;
  Visit visit_;
  int nodes_ = 0;
};

zu::Result<PdfSignature> signatureOf(const PdfDocument& document, const PdfDictionary& dictionary) {
  PdfSignature signature;
  auto subFilter = member(document, dictionary, "SubFilter");
  if (!subFilter) return subFilter.error();
  if (subFilter->name()) signature.subFilter = subFilter->name()->text;
  auto range = member(document, dictionary, "ByteRange");
  if (!range) return range.error();
  if (range->array()) {
    for (const PdfObject& number : *range->array()) {
      if (!number.integer()) return missing("integer /ByteRange in its signature");
      signature.byteRange.push_back(*number.integer());
    }
  }
  // /Contents must stand in the dictionary itself: its place in the file is what the byte range leaves out.
  const PdfObject* contents = dictionary.find("Contents");
  if (!contents || !contents->string()) return missing("/Contents string in its signature");
  signature.contents = contents->string()->bytes;
  signature.contentsBegin = contents->string()->begin;
  signature.contentsEnd = contents->string()->end;
  return signature;
}

// The embedded file of a file entry (/Type /Filespec): /EF /F, a stream without filters.
zu::Result<zu::Data> embeddedFile(const PdfDocument& document, const PdfObject& entry,
                                  const std::string& name) {
  auto resolved = document.resolve(entry);
  if (!resolved) return resolved.error();
  const PdfDictionary* dictionary = resolved->dictionary();
  auto files = dictionary ? member(document, *dictionary, "EF") : zu::Result<PdfObject>(PdfObject{});
  if (!files) return files.error();
  auto file =
      files->dictionary() ? member(document, *files->dictionary(), "F") : zu::Result<PdfObject>(PdfObject{});
  if (!file) return file.error();
  if (!file->stream()) return missing("embedded file stream for the attachment " + name);
  auto data = document.streamData(*file->stream());
  if (!data) return data.error();
  return zu::Data(data->begin(), data->end());
}

}  // namespace

zu::Result<PdfSignature> readSignature(const PdfDocument& document) {
  const auto root = catalog(document);
  if (!root) return root.error();
  auto form = member(document, *root, "AcroForm");
  if (!form) return form.error();
  if (!form->dictionary()) return missing("form (/AcroForm), so no signature");
  std::vector<PdfSignature> signatures;
  TreeWalk fields(document, "Kids", [&](const PdfDictionary& field) -> zu::Result<void> {
    const PdfObject* type = field.find("FT");
    if (!type || !type->isName("Sig") || !field.find("V")) return {};
    auto value = member(document, field, "V");
    if (!value) return value.error();
    if (!value->dictionary()) return {};  // a field not signed yet
    auto signature = signatureOf(document, *value->dictionary());
    if (!signature) return signature.error();
    signatures.push_back(std::move(*signature));
    return {};
  });
  auto list = member(document, *form->dictionary(), "Fields");
  if (!list) return list.error();
  if (list->array()) {
    for (const PdfObject& field : *list->array()) {
      if (auto walked = fields.walk(field, 0); !walked) return walked.error();
    }
  }
  if (signatures.empty()) return missing("signed signature field");
  if (signatures.size() > 1) {
    return ProvenanceError::make(
        ProvenanceError::malformed,
        "the PDF holds " + std::to_string(signatures.size()) + " signatures where a certificate has one");
  }
  return std::move(signatures.front());
}

zu::Result<std::map<std::string, zu::Data>> readAttachments(const PdfDocument& document) {
  const auto root = catalog(document);
  if (!root) return root.error();
  auto names = member(document, *root, "Names");
  if (!names) return names.error();
  auto tree = names->dictionary() ? member(document, *names->dictionary(), "EmbeddedFiles")
                                  : zu::Result<PdfObject>(PdfObject{});
  if (!tree) return tree.error();
  if (!tree->dictionary()) return missing("attachments (/Names /EmbeddedFiles)");
  std::map<std::string, zu::Data> attachments;
  // Attachments are distinct parts of the file, so together they are smaller than it; names that all point
  // at one large stream would otherwise copy it over and over.
  std::size_t total = 0;
  TreeWalk walk(document, "Kids", [&](const PdfDictionary& node) -> zu::Result<void> {
    auto pairs = member(document, node, "Names");
    if (!pairs) return pairs.error();
    if (!pairs->array()) return {};
    const PdfArray& entries = *pairs->array();
    for (std::size_t i = 0; i + 1 < entries.size(); i += 2) {
      if (!entries[i].string()) return missing("text name for an attachment");
      const std::string& name = entries[i].string()->bytes;
      auto file = embeddedFile(document, entries[i + 1], name);
      if (!file) return file.error();
      total += file->size();
      if (total > document.bytes().size()) {
        return ProvenanceError::make(ProvenanceError::malformed,
                                     "the PDF's attachments are larger than the PDF");
      }
      if (!attachments.emplace(name, std::move(*file)).second) {
        return ProvenanceError::make(ProvenanceError::malformed, "the PDF has two attachments named " + name);
      }
    }
    return {};
  });
  if (auto walked = walk.walk(*tree, 0); !walked) return walked.error();
  return attachments;
}

}  // namespace kiv::detail

#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ZuFoundation/Data.hpp"

// Certificates changed the ways an attacker or an accident changes them, made from a genuine set in memory
// and in a scratch folder: each tamper names the check that must catch it.
namespace kivtest {

/// A genuine certificate with everything needed to check it and to tamper with it.
struct GenuineSet {
  zu::Data pdf;
  std::string caPEM;
  /// A folder holding exactly the report's files, under their names in the manifest.
  std::filesystem::path media;
  /// The manifest's file names, in its order.
  std::vector<std::string> fileNames;
  /// A file of another report, its valid statement, and the time-stamp of that report's manifest.
  std::filesystem::path otherFile;
  std::string otherStatement;
  zu::Data otherTimestamp;
};

/// What a check is given: the PDF and the media paths.
struct Presented {
  zu::Data pdf;
  std::vector<std::string> files;
};

struct Tamper {
  std::string name;
  /// The tampered presentation of `set`, using `scratch` for changed media files.
  std::function<Presented(const GenuineSet& set, const std::filesystem::path& scratch)> apply;
  /// The check that must fail ("" for the genuine set, where all must hold); "<file>" stands for the
  /// manifest's first file.
  std::string failingCheck;
  /// Words its message must hold, saying what failed.
  std::string failingMessage;
};

/// The genuine presentation, then one tamper per way of breaking a certificate.
std::vector<Tamper> tampers();
/// The failing check's full name for `set`.
std::string checkName(const Tamper& tamper, const GenuineSet& set);

// Edits of a PDF that the tampers are made of; the SDK's reader finds the objects.

/// The text of the attachment `name`.
std::string attachmentText(const zu::Data& pdf, const std::string& name);
/// `pdf` with an incremental update that gives the attachments `replaced` new content.
zu::Data withReplacedAttachments(const zu::Data& pdf, const std::map<std::string, std::string>& replaced);

}  // namespace kivtest

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KivSDK/Model/KivFile.hpp"
#include "ZuFoundation/UUID.hpp"

namespace kiv {

/**
 * A report: a named, dated group of media files submitted together for certification. A value record; every
 * change makes a new record, which the caller stores.
 */
struct KivReport {
  enum class ProofStatus { undefined = 0, pending = 1, confirmed = 2, failed = 3, gettingCertificate = 4 };

  /// Local identity, set when the report is made on the device.
  std::optional<zu::UUID> id;
  /// The title; also the base of the PDF's file name.
  std::string name;
  zu::Date created;
  std::optional<std::string> note;
  std::vector<KivFile> files;
  /// The service's identifier of the report, once the service has accepted it.
  std::optional<std::string> slug;
  std::optional<zu::Date> certificationRequestedDate;
  std::optional<zu::FlatMetadata> _metadata;
  /// The report digest over its files' digests.
  std::optional<std::string> hash;
  /// Where the certificate is sent.
  std::optional<std::string> email;
  /// The proof status's raw value; see `proofStatus()`.
  int _proofStatusInt = 0;

  /// A new report: a fresh random `id`, `created` now, no files, status undefined.
  explicit KivReport(std::string name);

  /// The status's text: "undefined", "pending", "failed"; every other status reads "confirmed".
  static std::string_view string(ProofStatus status);
  /// The status the service's text names: "undefined", "pending", "confirmed" or "failed", compared whole
  /// and case-sensitively; any other text is `undefined`.
  static ProofStatus proofStatus(std::string_view fromAPIString);

  /// The stored status; the program stops when `_proofStatusInt` is out of range.
  ProofStatus proofStatus() const;
  void setProofStatus(ProofStatus status) { _proofStatusInt = zu::rawValue(status); }
  bool hasSlug() const { return slug.has_value(); }
  /// Status undefined, no slug, never requested, and at least one file.
  bool certificationCanBeRequested() const;

  /// The metadata as a nested map, rebuilt from the flat form; nothing when there is none.
  std::optional<zu::AnyCodable::Dictionary> metadata() const;
  /// Stores `metadata` in flat form (leaves become text); nothing clears it.
  void setMetadata(const std::optional<zu::AnyCodable::Dictionary>& metadata);

  /// The PDF folder (documents directory + "PDFs/"), re-created when it has gone.
  static zu::URL pdfDirectory();
  /// PDF folder + name + ".pdf". Reports with the same name share it.
  zu::URL pdfURL() const;
  /// Whether a file exists at `pdfURL()` (never for a name that is not one plain file name).
  bool hasLocalPDF() const;

  /**
   * This (local) report updated with `with`, the newer copy (typically the service's answer): name,
   * creation date, files, status and certification date from `with`; id, note, slug, digest, e-mail and
   * metadata from `with` when it has them, else from this report.
   */
  KivReport merge(const KivReport& with) const;
  /// Same name, same status and pairwise equal files in the same order.
  bool isIdenticalForUI(const KivReport& to) const;

  /**
   * A copy whose files all carry their digests (calculated in parallel where missing) and whose `hash` is the
   * SHA-256 of the files' digests sorted and concatenated; files without a digest take no part.
   */
  KivReport withCalculatedHash() const;

  /// The service's JSON object: "name", "original_created_at", "provable_files", then "note", "hash",
  /// "slug", "email" and "meta_data" when present.
  zu::AnyCodable::Dictionary dictionaryRepresentation() const;
  /**
   * A report read from the service's JSON object, without an `id`; nothing when it has no usable "name"
   * (missing, not text, or not a plain file name). File elements that cannot be read are dropped alone.
   */
  static std::optional<KivReport> fromKivAPIResponseDict(const zu::AnyCodable::Dictionary& dict);

  /// Equal slugs when both have one, else equal ids when both have one, else equal names.
  friend bool operator==(const KivReport& a, const KivReport& b);
  /// Ordered by `created` in whole seconds; the program stops on a non-finite or out-of-range date.
  friend bool operator<(const KivReport& a, const KivReport& b);
  friend bool operator>(const KivReport& a, const KivReport& b) { return b < a; }
  friend bool operator<=(const KivReport& a, const KivReport& b) { return !(b < a); }
  friend bool operator>=(const KivReport& a, const KivReport& b) { return !(a < b); }
};

}  // namespace kiv

template <>
struct zu::RawValueRange<kiv::KivReport::ProofStatus> {
  static constexpr int first = 0;
  static constexpr int last = 4;
};

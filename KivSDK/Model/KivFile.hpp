#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "AnyCodable/AnyCodable.hpp"
#include "AnyCodable/MetadataFlattening.hpp"
#include "ZuFoundation/Date.hpp"
#include "ZuFoundation/RawValue.hpp"
#include "ZuFoundation/URL.hpp"

namespace kiv {

/**
 * One captured photo or video of a report: a value record. Every change makes a new record, which the caller
 * stores.
 *
 * The file's bytes live at `fileURL()`: the media folder + `name` + "." + `ext`. A record whose name is not
 * one plain file name (see `hasPlainFileName()`) has no local location at all: it is never read, hashed or
 * written on disk.
 */
struct KivFile {
  enum class FileType { unknown = 0, image = 1, video = 2 };

  struct _Const {
    struct Values {
      /// Uploads of one file's content are attempted at most once in this many seconds.
      static constexpr double minimumTimeIntervalBetweenFileUploadRequest = 1800.0;
    };
  };

  /// The file name on the device, without extension; the file's identity in the media folder.
  std::string name;
  std::optional<std::string> description;
  /// The extension without the dot ("jpg", "mov").
  std::string ext;
  FileType fileType = FileType::unknown;
  zu::Date dateTaken;
  /// The service's identifier of the file, once the service has accepted it.
  std::optional<std::string> slug;
  std::optional<zu::FlatMetadata> _metadata;
  /// Lower-case hexadecimal SHA-256 of the file's bytes, once calculated.
  std::optional<std::string> hash;
  /// Where the service holds the uploaded content.
  std::optional<zu::URL> remoteUrl;
  std::optional<zu::Date> _lastFileUploadAttemptDate;

  /// A file with no slug, digest, metadata or upload yet; `fileType` follows from the extension.
  KivFile(std::string name, std::string extension, zu::Date dateTaken);

  /// The kind of content an extension names (letter case ignored): images before videos, else unknown.
  static FileType fileTypeForExtension(std::string_view ext);

  /// The media folder (documents directory + "Kiv/"), re-created when it has gone.
  static zu::URL kivDirectory();

  /// The metadata as a nested map, rebuilt from the flat form; nothing when there is none.
  std::optional<zu::AnyCodable::Dictionary> metadata() const;
  /// Stores `metadata` in flat form (leaves become text); nothing clears it.
  void setMetadata(const std::optional<zu::AnyCodable::Dictionary>& metadata);

  /// Whether `name` is one plain file name and `ext` holds no "/" or NUL, so the file can live in the media
  /// folder.
  bool hasPlainFileName() const;
  /// Media folder + name + extension, whether or not a file is there.
  zu::URL fileURL() const;
  /// `fileURL()` when a file exists there (and the name is plain), else nothing.
  std::optional<zu::URL> localFileLocation() const;
  bool hasLocalFile() const { return localFileLocation().has_value(); }
  bool hasRemoteFile() const { return remoteUrl.has_value(); }

  /**
   * Whether an upload of the content may be attempted at `now`: never once it is on the service; always when
   * never attempted; else once 1800 seconds have passed since the last attempt (a future attempt date blocks
   * until 1800 seconds after it).
   */
  bool canAttemptFileUpload(zu::Date now) const;
  bool canAttemptFileUpload() const { return canAttemptFileUpload(zu::Date::now()); }

  /// A copy with `_lastFileUploadAttemptDate` set to `date`.
  KivFile updatingFileUploadAttemptDate(zu::Date date) const;
  /**
   * This (local) record updated with `with`, the newer information (typically the service's copy): the
   * result takes `with`'s name, extension, date and attempt date; slug, description, digest, remote URL and
   * metadata come from `with` when it has them, else from this record.
   */
  KivFile merge(const KivFile& with) const;
  /// Whether both show the same file: equal name and extension.
  bool isIdenticalForUI(const KivFile& to) const;

  /**
   * A copy carrying the SHA-256 of the local file's bytes (streamed, never loaded whole). A record that has a
   * digest keeps it; one without a readable local file stays without one.
   */
  KivFile withCalculatedHash() const;

  /// The service's JSON object for this file: "file_name", "original_created_at", then "hash", "slug",
  /// "description" and "meta_data" when present.
  zu::AnyCodable::Dictionary dictionaryRepresentation() const;
  /**
   * A file read from the service's JSON object; nothing when it has no usable "file_name" (missing, not
   * text, or not a plain file name). A value of the wrong type counts as missing; a missing or unreadable
   * date reads as the current time.
   */
  static std::optional<KivFile> fromKivAPIResponseDict(const zu::AnyCodable::Dictionary& dict);

  /// Equal slugs when both have one, else equal name and extension.
  friend bool operator==(const KivFile& a, const KivFile& b);
  /// Ordered by `dateTaken` in whole seconds; the program stops on a non-finite or out-of-range date.
  friend bool operator<(const KivFile& a, const KivFile& b);
  friend bool operator>(const KivFile& a, const KivFile& b) { return b < a; }
  friend bool operator<=(const KivFile& a, const KivFile& b) { return !(b < a); }
  friend bool operator>=(const KivFile& a, const KivFile& b) { return !(a < b); }
};

}  // namespace kiv

template <>
struct zu::RawValueRange<kiv::KivFile::FileType> {
  static constexpr int first = 0;
  static constexpr int last = 2;
};

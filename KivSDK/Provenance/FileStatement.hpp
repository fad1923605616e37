#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "AnyCodable/AnyCodable.hpp"
#include "KivSDK/Model/KivFile.hpp"
#include "KivSDK/Provenance/DeviceSigner.hpp"
#include "ZuFoundation/Date.hpp"
#include "ZuFoundation/Result.hpp"

namespace kiv {

/**
 * What a device states about a file it took in: the file's name on the wire ("name.ext"), its SHA-256, when
 * it was taken, which key signs, and when. Its signed form is a compact JWS (header
 * `{"alg":"EdDSA","kid":"<key id>","typ":"kiv-file-statement"}`, the fields below as canonical JSON payload).
 *
 * @code
 * auto jws = kiv::FileStatement::about(file, signer->keyId(), zu::Date::now())->sign(*signer);
 * @endcode
 */
struct FileStatement {
  static constexpr std::string_view type = "kiv-file-statement";

  /// "file_name": the file's `name` + "." + `ext`.
  std::string fileName;
  /// "sha256": lower-case hex.
  std::string sha256;
  /// "date_taken", "signed_at": the service's date text, yyyy-MM-dd'T'HH:mm:ss'Z' in UTC.
  std::string dateTaken;
  std::string signedAt;
  /// "key_id": the signing key's id.
  std::string keyId;

  /// The statement about `file` by the key `keyId`, signed at `signedAt`; fails when the record has no
  /// digest. The digest is the record's: it must be that of the bytes the device holds.
  static zu::Result<FileStatement> about(const KivFile& file, std::string keyId, zu::Date signedAt);
  /// The file's name on the wire: `name` + "." + `ext`.
  static std::string wireName(const KivFile& file);

  /// The payload object.
  zu::AnyCodable::Dictionary payload() const;
  /// The compact JWS signed by `signer`, whose key must be `keyId`'s.
  zu::Result<std::string> sign(const DeviceSigner& signer) const;

  /// The statement a JWS carries, its signature not checked: to tell which key to check it with.
  static zu::Result<FileStatement> read(std::string_view jws);
  /// The statement a JWS carries, when it is signed by the Ed25519 key `publicKey` (32 raw bytes) and names
  /// that key; fails with `ProvenanceError::signatureInvalid` otherwise.
  static zu::Result<FileStatement> verify(std::string_view jws, std::span<const std::uint8_t> publicKey);

  friend bool operator==(const FileStatement&, const FileStatement&) = default;
};

}  // namespace kiv

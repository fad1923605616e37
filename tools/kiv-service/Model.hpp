#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kiv::service {

/// A file of a report as the service keeps it: what the client declared plus what was uploaded.
struct FileRecord {
  std::string slug;
  std::string fileName;
  std::string createdAt;  ///< wire text, "yyyy-MM-ddTHH:mm:ssZ"
  std::optional<std::string> hash;
  std::optional<std::string> description;
  std::optional<std::string> metaData;    ///< JSON object text
  std::optional<std::string> storedExt;   ///< set once content is stored
  std::optional<std::string> storedHash;  ///< SHA-256 of the stored content
  std::int64_t storedSize = 0;
};

/// A report with its files in the order the client sent them.
struct ReportRecord {
  std::string slug;
  std::string name;
  std::string createdAt;
  std::optional<std::string> note;
  std::optional<std::string> hash;
  std::optional<std::string> email;
  std::optional<std::string> metaData;
  std::string status = "pending";
  std::vector<FileRecord> files;
};

/// One mailing-list subscription of an e-mail address.
struct Subscription {
  std::string listName;
  std::string status;                      ///< "subscribed" or "unsubscribed"
  std::optional<std::string> mergeFields;  ///< JSON object text
};

/// A device's Ed25519 public key as an application token registered it.
struct DeviceKey {
  std::string keyId;      ///< hex SHA-256 of the 32 raw bytes
  std::string publicKey;  ///< the 32 raw bytes as base64url
};

/// A device's signed statement about one file of a report, as the service accepted it.
struct StatementRecord {
  std::string fileName;
  std::string sha256;  ///< the digest the statement names
  DeviceKey key;       ///< the registered key it verified under
  std::string jws;
};

/// What the service issues once a report is confirmed: the signed manifest and its time-stamp.
struct ManifestRecord {
  std::string jws;
  std::string timestamp;  ///< DER RFC 3161 TimeStampResp over `jws`
  std::string issuedAt;   ///< the time-stamp's time as wire text
};

/**
 * The proof status that a report's files earn: "failed" as soon as one stored content differs from its
 * declared digest, "confirmed" when every file is stored and matches, "pending" otherwise. A report without
 * files stays "pending": there is nothing to prove yet.
 */
std::string evaluateProofStatus(const std::vector<FileRecord>& files);

}  // namespace kiv::service

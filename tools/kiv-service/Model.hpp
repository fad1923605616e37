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

/**
 * The proof status that a report's files earn: "failed" as soon as one stored content differs from its
 * declared digest, "confirmed" when every file is stored and matches, "pending" otherwise. A report without
 * files stays "pending": there is nothing to prove yet.
 */
std::string evaluateProofStatus(const std::vector<FileRecord>& files);

}  // namespace kiv::service

#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Model.hpp"

namespace kiv::service {

/// A request the route refuses: `status` (400 unless said), with `what()` answered under "detail".
struct BadRequest : std::runtime_error {
  explicit BadRequest(const std::string& detail, int status = 400)
      : std::runtime_error(detail), status(status) {}
  int status;
};

/// The largest JSON body any route reads; a larger one is answered 413.
inline constexpr std::size_t kMaxJsonBodyBytes = 16 << 20;
/// How deeply a JSON body may nest arrays and objects. Deeper values could not be written back (the JSON
/// writer recurses), and no client needs them: metadata travels flat.
inline constexpr int kMaxJsonDepth = 64;
/// The detail of a 413 answer.
inline constexpr std::string_view kBodyTooLarge = "The request body must not be larger than 16 MiB.";

/// Parses a JSON body within kMaxJsonDepth; a discarded value when it is not JSON. Throws BadRequest when it
/// nests too deeply.
nlohmann::json parseJson(std::string_view body);

/**
 * Reads a report body (POST and PATCH): "name", "original_created_at" and "provable_files" are required;
 * "note", "hash", "email", "meta_data" and the files' "hash", "description", "meta_data" are optional (null
 * counts as absent). Slugs in the body are ignored: the service assigns them. File names must be unique plain
 * names; a folder part or a name like ".." is refused. Throws BadRequest.
 */
ReportRecord parseReport(std::string_view body);

/// The signed download address of a stored file, or nothing while its content is not stored.
using FileUrl = std::function<std::optional<std::string>(const FileRecord&)>;

/// A report as the service answers it, files in the client's order, each with "file" once stored.
nlohmann::json renderReport(const ReportRecord& report, const FileUrl& fileUrl);

/// A newsletter body: the address and its wanted subscriptions. Throws BadRequest.
struct NewsletterRequest {
  std::string email;
  std::vector<Subscription> subscriptions;
};
NewsletterRequest parseNewsletter(std::string_view body);

nlohmann::json renderSubscriptions(const std::string& email, const std::vector<Subscription>& subscriptions);

/// A device-key body, {"public_key": text}: the text. Throws BadRequest.
std::string parsePublicKey(std::string_view body);

/// A statements body, {"statements": [text, ...]} with at least one JWS text. Throws BadRequest.
std::vector<std::string> parseStatementList(std::string_view body);

/// {"statements": [{"file_name", "key_id"}, ...]}: which device stated each file.
nlohmann::json renderStatements(const std::vector<StatementRecord>& statements);

/// Whether `text` is a UTC time in the service's date text, like 2024-05-01T12:00:00Z.
bool isWireTime(const std::string& text);
/// Whether `text` is a SHA-256 digest as the wire writes it: 64 lower-case hexadecimal digits.
bool isSha256Hex(const std::string& text);

/// {"detail": text}, the shape of every error answer.
std::string detail(std::string_view text);

}  // namespace kiv::service

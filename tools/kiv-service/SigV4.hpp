#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace kiv::service::sigv4 {

/// An S3 account's key pair and the region and service it signs for.
struct Credentials {
  std::string accessKey;
  std::string secretKey;
  std::string region = "us-east-1";
  std::string service = "s3";
};

/// A request to sign: the path as sent (not yet encoded), its query parameters and the headers to sign
/// (names in lower case; "host" among them).
struct Request {
  std::string method;
  std::string path;
  std::map<std::string, std::string> query;
  std::map<std::string, std::string> headers;
};

/// "20130524T000000Z": the time stamp form of the signatures, from seconds since 1970 (UTC).
std::string timestamp(std::int64_t unixSeconds);

/// RFC 3986 percent-encoding of everything but unreserved characters; '/' stays when `keepSlashes`.
std::string uriEncode(std::string_view text, bool keepSlashes);

/**
 * Signs `request` in the header form: answers the "Authorization" header's value. `request.headers` must
 * hold "host", "x-amz-date" (`timestamp(now)`) and "x-amz-content-sha256" (the payload's hex SHA-256, or
 * "UNSIGNED-PAYLOAD").
 */
std::string authorization(const Request& request, const Credentials& credentials, std::int64_t now);

/**
 * The query string of a presigned URL ("X-Amz-Algorithm=...&X-Amz-Signature=..."), valid for `expires`
 * seconds (1 to 604800) from `now` for anyone who sends `request.method` to `request.path` on `host`, with
 * any body.
 */
std::string presignedQuery(Request request, const std::string& host, const Credentials& credentials,
                           std::int64_t now, std::int64_t expires);

}  // namespace kiv::service::sigv4

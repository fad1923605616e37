#include "SigV4.hpp"

#include <array>
#include <ctime>

#include "Crypto.hpp"

// Signature Version 4 as the object stores' published algorithm defines it: a canonical request, a string to
// sign over its digest and the credential scope, and an HMAC chain that derives the signing key from the
// secret, the date, the region and the service.
namespace kiv::service::sigv4 {
namespace {

constexpr std::string_view kAlgorithm = "AWS4-HMAC-SHA256";

std::string scope(const Credentials& credentials, const std::string& date) {
  return date + "/" + credentials.region + "/" + credentials.service + "/aws4_request";
}

std::string canonicalQuery(const std::map<std::string, std::string>& query) {
  std::string text;
  for (const auto& [name, value] : query) {
    if (!text.empty()) text += '&';
    text += uriEncode(name, false) + "=" + uriEncode(value, false);
  }
  return text;
}

std::string signedHeaderNames(const std::map<std::string, std::string>& headers) {
  std::string names;
  for (const auto& [name, value] : headers) names += (names.empty() ? "" : ";") + name;
  return names;
}

std::string canonicalRequest(const Request& request, std::string_view payloadHash) {
  std::string text =
      request.method + "\n" + uriEncode(request.path, true) + "\n" + canonicalQuery(request.query) + "\n";
  for (const auto& [name, value] : request.headers) text.append(name).append(":").append(value).append("\n");
  return text + "\n" + signedHeaderNames(request.headers) + "\n" + std::string(payloadHash);
}

std::string signature(const Request& request, std::string_view payloadHash, const Credentials& credentials,
                      const std::string& stamp) {
  const std::string date = stamp.substr(0, 8);
  const std::string stringToSign = std::string(kAlgorithm) + "\n" + stamp + "\n" + scope(credentials, date) +
                                   "\n" + sha256Hex(canonicalRequest(request, payloadHash));
  std::string key = hmacSha256("AWS4" + credentials.secretKey, date);
  key = hmacSha256(key, credentials.region);
  key = hmacSha256(key, credentials.service);
  key = hmacSha256(key, "aws4_request");
  return hmacSha256Hex(key, stringToSign);
}

}  // namespace

std::string timestamp(std::int64_t unixSeconds) {
  const auto seconds = static_cast<std::time_t>(unixSeconds);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  std::array<char, 17> text{};
  static_cast<void>(std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc));
  return text.data();
}

std::string uriEncode(std::string_view text, bool keepSlashes) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool alphanumeric = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    if (alphanumeric || c == '-' || c == '_' || c == '.' || c == '~' || (keepSlashes && c == '/')) {
      encoded += c;
    } else {
      encoded += '%';
      encoded += digits[byte >> 4];
      encoded += digits[byte & 0x0f];
    }
  }
  return encoded;
}

std::string authorization(const Request& request, const Credentials& credentials, std::int64_t now) {
  const std::string stamp = timestamp(now);
  return std::string(kAlgorithm) + " Credential=" + credentials.accessKey + "/" +
         scope(credentials, stamp.substr(0, 8)) + ", SignedHeaders=" + signedHeaderNames(request.headers) +
         ", Signature=" + signature(request, request.headers.at("x-amz-content-sha256"), credentials, stamp);
}

std::string presignedQuery(Request request, const std::string& host, const Credentials& credentials,
                           std::int64_t now, std::int64_t expires) {
  const std::string stamp = timestamp(now);
  request.headers = {{"host", host}};
  request.query["X-Amz-Algorithm"] = kAlgorithm;
  request.query["X-Amz-Credential"] = credentials.accessKey + "/" + scope(credentials, stamp.substr(0, 8));
  request.query["X-Amz-Date"] = stamp;
  request.query["X-Amz-Expires"] = std::to_string(expires);
  request.query["X-Amz-SignedHeaders"] = "host";
  const std::string signed_ = signature(request, "UNSIGNED-PAYLOAD", credentials, stamp);
  return canonicalQuery(request.query) + "&X-Amz-Signature=" + signed_;
}

}  // namespace kiv::service::sigv4

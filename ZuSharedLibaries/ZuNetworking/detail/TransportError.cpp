#include "ZuNetworking/detail/TransportError.hpp"

#include <cstring>

#include "AnyCodable/AnyCodable.hpp"

namespace zu::detail {
namespace {

const char* text(URLError::Code code) {
  switch (code) {
    case URLError::cancelled:
      return "cancelled";
    case URLError::badURL:
      return "bad URL";
    case URLError::timedOut:
      return "The request timed out.";
    case URLError::unsupportedURL:
      return "unsupported URL";
    case URLError::cannotFindHost:
      return "A server with the specified hostname could not be found.";
    case URLError::cannotConnectToHost:
      return "Could not connect to the server.";
    case URLError::networkConnectionLost:
      return "The network connection was lost.";
    case URLError::httpTooManyRedirects:
      return "too many HTTP redirects";
    case URLError::fileDoesNotExist:
      return "The file doesn’t exist.";
    case URLError::secureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case URLError::serverCertificateUntrusted:
      return "The certificate for this server is invalid.";
    case URLError::cannotWriteToFile:
      return "The file couldn’t be saved.";
    case URLError::unknown:
      break;
  }
  return "unknown error";
}

URLError::Code codeFor(CURLcode result) {
  switch (result) {
    case CURLE_ABORTED_BY_CALLBACK:
      return URLError::cancelled;
    case CURLE_URL_MALFORMAT:
      return URLError::badURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return URLError::unsupportedURL;
    case CURLE_OPERATION_TIMEDOUT:
      return URLError::timedOut;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return URLError::cannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return URLError::cannotConnectToHost;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return URLError::networkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
      return URLError::httpTooManyRedirects;
    case CURLE_READ_ERROR:
      return URLError::fileDoesNotExist;
    case CURLE_WRITE_ERROR:
      return URLError::cannotWriteToFile;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      return URLError::serverCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
      return URLError::secureConnectionFailed;
    default:
      return URLError::unknown;
  }
}

}  // namespace

Error urlError(URLError::Code code, const std::string& failingURL, const std::string& detail) {
  Error::UserInfo info;
  info.set(std::string(Error::localizedDescriptionKey), text(code));
  info.set("NSErrorFailingURLStringKey", failingURL);
  if (!detail.empty()) info.set(std::string(Error::debugDescriptionKey), detail);
  return Error(std::string(Error::urlDomain), code, std::move(info));
}

Error urlError(CURLcode result, const std::string& failingURL, const std::string& detail) {
  return urlError(codeFor(result), failingURL, detail.empty() ? curl_easy_strerror(result) : detail);
}

}  // namespace zu::detail

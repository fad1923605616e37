#include "ZuNetworking/detail/TransportError.hpp"

#include <cstring>

namespace zu::detail {
namespace {

const char* text(URLErrorCode code) {
  switch (code) {
    case cancelled:
      return "cancelled";
    case badURL:
      return "bad URL";
    case timedOut:
      return "The request timed out.";
    case unsupportedURL:
      return "unsupported URL";
    case cannotFindHost:
      return "A server with the specified hostname could not be found.";
    case cannotConnectToHost:
      return "Could not connect to the server.";
    case networkConnectionLost:
      return "The network connection was lost.";
    case httpTooManyRedirects:
      return "too many HTTP redirects";
    case fileDoesNotExist:
      return "The file doesn’t exist.";
    case secureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case serverCertificateUntrusted:
      return "The certificate for this server is invalid.";
    case cannotWriteToFile:
      return "The file couldn’t be saved.";
    case unknown:
      break;
  }
  return "unknown error";
}

URLErrorCode codeFor(CURLcode result) {
  switch (result) {
    case CURLE_ABORTED_BY_CALLBACK:
      return cancelled;
    case CURLE_URL_MALFORMAT:
      return badURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return unsupportedURL;
    case CURLE_OPERATION_TIMEDOUT:
      return timedOut;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return cannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return cannotConnectToHost;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return networkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
      return httpTooManyRedirects;
    case CURLE_READ_ERROR:
      return fileDoesNotExist;
    case CURLE_WRITE_ERROR:
      return cannotWriteToFile;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      return serverCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
      return secureConnectionFailed;
    default:
      return unknown;
  }
}

}  // namespace

Error urlError(URLErrorCode code, const std::string& failingURL, const std::string& detail) {
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

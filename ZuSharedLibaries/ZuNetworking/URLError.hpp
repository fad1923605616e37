#pragma once

namespace zu {

/**
 * The codes of domain "NSURLErrorDomain" (`Error::urlDomain`) that transport failures carry, named as on the
 * platform. Compare them with `Error::code()`:
 *
 * @code
 * if (error && error->domain() == zu::Error::urlDomain && error->code() == zu::URLError::timedOut) retry();
 * @endcode
 */
struct URLError {
  enum Code : long {
    unknown = -1,
    /// The task was cancelled, or its session went away first.
    cancelled = -999,
    badURL = -1000,
    /// Nothing moved either way for the request's `timeoutInterval`, or the connection took that long.
    timedOut = -1001,
    unsupportedURL = -1002,
    cannotFindHost = -1003,
    cannotConnectToHost = -1004,
    networkConnectionLost = -1005,
    httpTooManyRedirects = -1007,
    /// An upload's file is missing or cannot be read.
    fileDoesNotExist = -1100,
    secureConnectionFailed = -1200,
    serverCertificateUntrusted = -1202,
    /// A download's temporary file cannot be written.
    cannotWriteToFile = -3003,
  };
};

}  // namespace zu

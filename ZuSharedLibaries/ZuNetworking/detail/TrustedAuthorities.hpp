#pragma once

#include <openssl/x509.h>

#include <string>

namespace zu::detail {

/**
 * Fills the certificate store of one TLS connection with the authorities it trusts: the system's (the bundle
 * file and folder that libcurl was built to use) and, unless `additionalFile` is empty, the certificates of
 * that PEM file. False when a file cannot be read or holds no certificate; the connection must then fail.
 *
 * Files are parsed once per process and again only when they change on disk, and every connection shares
 * the parsed certificates: parsing the system's bundle of some 150 authorities takes over ten milliseconds,
 * adding them to a store a fraction of one. libcurl itself would parse the bundle for every connection
 * (its own cache is off whenever it has a folder of authorities, as Debian builds it).
 *
 * @par Thread Safety
 * May be called from any thread; each call fills a store of its own.
 */
bool addTrustedAuthorities(X509_STORE* store, const std::string& additionalFile);

}  // namespace zu::detail

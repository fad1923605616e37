#pragma once

#include <string>
#include <string_view>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace kiv::service {

/// The policy under which the service's TSA stamps: a UUID OID of its own (2.25 is the UUID arc).
inline constexpr const char* kTimestampPolicy = "2.25.286676183924113436215391935245312734373";

/**
 * An RFC 3161 TimeStampResp (DER) from the service's own time-stamp authority over `data`: a SHA-256 message
 * imprint, a random nonce and serial number, the TSA certificate included, signed with SHA-256 by `key`.
 * `openssl ts -verify -data FILE -in RESPONSE -CAfile ca.pem` accepts it. Throws std::runtime_error.
 */
std::string timeStamp(std::string_view data, X509* tsaCertificate, EVP_PKEY* key);

/// The genTime of a TimeStampResp as the service's date text, "yyyy-MM-ddTHH:mm:ssZ". Throws
/// std::runtime_error when the response cannot be read.
std::string timeStampTime(std::string_view response);

}  // namespace kiv::service

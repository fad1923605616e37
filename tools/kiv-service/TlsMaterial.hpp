#pragma once

#include <filesystem>

#include "Handles.hpp"

namespace kiv::service {

/// Where the service's TLS files live under its data folder.
struct TlsMaterial {
  std::filesystem::path caCertificate;      ///< the CA clients trust; DIR/ca.pem
  std::filesystem::path caKey;              ///< the CA's key, which also issues the provenance certificates
  std::filesystem::path serverCertificate;  ///< for localhost and 127.0.0.1, signed by the CA
  std::filesystem::path serverKey;
};

/**
 * Returns the CA and server certificate under `dataDir`, making them on first start: a self-signed CA (ten
 * years) and a server certificate for "localhost" and 127.0.0.1 signed by it. Later starts reuse the files,
 * so clients that trusted the CA once keep trusting the service, and nodes that share the folder serve the
 * same certificate (the first of them to start makes it, under a lock). Private keys are written with mode
 * 0600. Throws std::runtime_error when OpenSSL or the file system fails.
 */
TlsMaterial ensureTlsMaterial(const std::filesystem::path& dataDir);

/**
 * Holds the key material under `dataDir` (its "tls" folder must exist) for this process until the answer is
 * destroyed: nodes that share the folder and start together make each key once, the first of them under the
 * lock. Throws std::runtime_error when the lock cannot be taken.
 */
Descriptor lockKeyFolder(const std::filesystem::path& dataDir);

}  // namespace kiv::service

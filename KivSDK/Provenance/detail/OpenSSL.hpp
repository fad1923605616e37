#pragma once

#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/ts.h>
#include <openssl/x509.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/internal/UniqueHandle.hpp"

// OpenSSL as the provenance component uses it: owned handles, keys from their raw and PEM forms, and the
// two signature schemes of its documents.
namespace kiv::detail {

using PKey = zu::detail::UniqueHandle<EVP_PKEY, EVP_PKEY_free>;
using Certificate = zu::detail::UniqueHandle<X509, X509_free>;
using CertificateStore = zu::detail::UniqueHandle<X509_STORE, X509_STORE_free>;
using Bio = zu::detail::UniqueHandle<BIO, BIO_free>;
using Cms = zu::detail::UniqueHandle<CMS_ContentInfo, CMS_ContentInfo_free>;
using TimestampResponse = zu::detail::UniqueHandle<TS_RESP, TS_RESP_free>;

inline void freeCertificates(STACK_OF(X509) * certificates) { sk_X509_pop_free(certificates, X509_free); }
using Certificates = zu::detail::UniqueHandle<STACK_OF(X509), freeCertificates>;

/// OpenSSL's reason for its last failure (with its details, when it has some), and clears its error queue;
/// `fallback` when it gives none.
std::string takeOpenSSLError(std::string_view fallback);

/// A memory BIO reading `bytes`, which must outlive it.
Bio readingBio(std::span<const std::uint8_t> bytes);

/// The hex SHA-256 of a raw Ed25519 public key: a device key's id.
std::string keyIdOf(std::span<const std::uint8_t> rawPublicKey);
/// The hex SHA-256 of the DER SubjectPublicKeyInfo: the service signing key's fingerprint.
std::string fingerprintOf(EVP_PKEY* key);

/// The Ed25519 public key of 32 raw bytes; null for anything else.
PKey ed25519PublicKey(std::span<const std::uint8_t> raw);
/// Whether `signature` is the Ed25519 signature of `message` under `key`.
bool verifyEd25519(EVP_PKEY* key, std::string_view message, std::span<const std::uint8_t> signature);
/**
 * Whether `signature`, the 64-byte R || S form of JWS (RFC 7518 section 3.4), is an ECDSA P-256 SHA-256
 * signature of `message` under `key`. OpenSSL verifies the DER form, to which R || S is converted.
 */
bool verifyES256(EVP_PKEY* key, std::string_view message, std::span<const std::uint8_t> signature);

/// The certificates of PEM text, in their order; fails when there are none or one does not parse.
zu::Result<Certificates> readCertificates(std::string_view pem);
/// A store that trusts `authorities` alone.
CertificateStore storeTrusting(const STACK_OF(X509) * authorities);

}  // namespace kiv::detail

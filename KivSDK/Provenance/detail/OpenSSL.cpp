#include "KivSDK/Provenance/detail/OpenSSL.hpp"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <limits>

#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "ZuDigest/ZuDigest.hpp"

namespace kiv::detail {
namespace {

using DigestContext = zu::detail::UniqueHandle<EVP_MD_CTX, EVP_MD_CTX_free>;
using EcdsaSignature = zu::detail::UniqueHandle<ECDSA_SIG, ECDSA_SIG_free>;
using BigNumber = zu::detail::UniqueHandle<BIGNUM, BN_free>;

constexpr std::size_t kEd25519KeySize = 32;
constexpr std::size_t kP256CoordinateSize = 32;

bool verifyWith(EVP_PKEY* key, const EVP_MD* digest, std::string_view message,
                std::span<const std::uint8_t> signature) {
  DigestContext context(EVP_MD_CTX_new());
  const bool verified =
      context && EVP_DigestVerifyInit(context.get(), nullptr, digest, nullptr, key) == 1 &&
      EVP_DigestVerify(context.get(), signature.data(), signature.size(),
                       reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
  ERR_clear_error();
  return verified;
}

// The DER ECDSA-Sig-Value of an R || S signature; empty when it cannot be made.
zu::Data derSignature(std::span<const std::uint8_t> signature) {
  if (signature.size() != 2 * kP256CoordinateSize) return {};
  BigNumber r(BN_bin2bn(signature.data(), kP256CoordinateSize, nullptr));
  BigNumber s(BN_bin2bn(signature.data() + kP256CoordinateSize, kP256CoordinateSize, nullptr));
  EcdsaSignature value(ECDSA_SIG_new());
  if (!r || !s || !value || ECDSA_SIG_set0(value.get(), r.get(), s.get()) != 1) return {};
  static_cast<void>(r.release());  // owned by `value` now
  static_cast<void>(s.release());
  const int length = i2d_ECDSA_SIG(value.get(), nullptr);
  if (length <= 0) return {};
  zu::Data der(static_cast<std::size_t>(length));
  unsigned char* out = der.data();
  if (i2d_ECDSA_SIG(value.get(), &out) != length) return {};
  return der;
}

}  // namespace

std::string takeOpenSSLError(std::string_view fallback) {
  const char* data = nullptr;
  int flags = 0;
  const unsigned long code = ERR_peek_last_error_data(&data, &flags);
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  std::string text = reason ? reason : std::string(fallback);
  // Some failures say more in their data: the certificate check says why the chain does not hold.
  if (reason && data && (flags & ERR_TXT_STRING) != 0 && *data != '\0') {
    std::string_view detail = data;
    if (detail.starts_with("Verify error:")) detail.remove_prefix(13);
    while (detail.starts_with(' ')) detail.remove_prefix(1);
    text = std::string(detail);
  }
  ERR_clear_error();
  return text;
}

Bio readingBio(std::span<const std::uint8_t> bytes) {
  if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return Bio();
  return Bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

std::string keyIdOf(std::span<const std::uint8_t> rawPublicKey) {
  return zu::hexString(zu::sha256(rawPublicKey));
}

std::string fingerprintOf(EVP_PKEY* key) {
  const int length = i2d_PUBKEY(key, nullptr);
  if (length <= 0) return {};
  zu::Data der(static_cast<std::size_t>(length));
  unsigned char* out = der.data();
  if (i2d_PUBKEY(key, &out) != length) return {};
  return zu::hexString(zu::sha256(der));
}

PKey ed25519PublicKey(std::span<const std::uint8_t> raw) {
  if (raw.size() != kEd25519KeySize) return PKey();
  return PKey(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, raw.data(), raw.size()));
}

bool verifyEd25519(EVP_PKEY* key, std::string_view message, std::span<const std::uint8_t> signature) {
  return key && EVP_PKEY_get_id(key) == EVP_PKEY_ED25519 && verifyWith(key, nullptr, message, signature);
}

bool verifyES256(EVP_PKEY* key, std::string_view message, std::span<const std::uint8_t> signature) {
  if (!key || !EVP_PKEY_is_a(key, "EC")) return false;
  char curve[64] = {};
  if (EVP_PKEY_get_utf8_string_param(key, "group", curve, sizeof curve, nullptr) != 1 ||
      std::string_view(curve) != SN_X9_62_prime256v1) {
    ERR_clear_error();
    return false;
  }
  const zu::Data der = derSignature(signature);
  return !der.empty() && verifyWith(key, EVP_sha256(), message, der);
}

zu::Result<Certificates> readCertificates(std::string_view pem) {
  Bio input = readingBio(std::span(reinterpret_cast<const std::uint8_t*>(pem.data()), pem.size()));
  Certificates certificates(sk_X509_new_null());
  if (!input || !certificates) {
    return ProvenanceError::make(ProvenanceError::malformed, takeOpenSSLError("out of memory"));
  }
  while (Certificate certificate{PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr)}) {
    if (sk_X509_push(certificates.get(), certificate.get()) <= 0) break;
    static_cast<void>(certificate.release());
  }
  // The loop ends at the end of the text (no start line found) or at a certificate that does not parse.
  const unsigned long last = ERR_peek_last_error();
  ERR_clear_error();
  const bool ended = last == 0 || ERR_GET_REASON(last) == PEM_R_NO_START_LINE;
  if (!ended || sk_X509_num(certificates.get()) == 0) {
    return ProvenanceError::make(ProvenanceError::malformed, "not PEM certificates");
  }
  return certificates;
}

CertificateStore storeTrusting(const STACK_OF(X509) * authorities) {
  CertificateStore store(X509_STORE_new());
  if (!store) return store;
  for (int i = 0; i < sk_X509_num(authorities); ++i) {
    if (X509_STORE_add_cert(store.get(), sk_X509_value(authorities, i)) != 1) return CertificateStore();
  }
  return store;
}

}  // namespace kiv::detail

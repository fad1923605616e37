#include "Timestamp.hpp"

#include <array>
#include <ctime>
#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ts.h>

#include "Crypto.hpp"
#include "Handles.hpp"

namespace kiv::service {
namespace {

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("time-stamp: ") + what);
}

// A positive 64-bit random integer: nonces and serial numbers must not repeat.
ASN1_INTEGER* randomInteger() {
  const std::string bytes = randomBytes(8);
  Handle<BIGNUM, BN_free> number(BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()),
                                           static_cast<int>(bytes.size()), nullptr));
  return number ? BN_to_ASN1_INTEGER(number.get(), nullptr) : nullptr;
}

ASN1_INTEGER* randomSerial(TS_RESP_CTX*, void*) { return randomInteger(); }

Handle<TS_REQ, TS_REQ_free> makeRequest(std::string_view data) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  check(EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_sha256(), nullptr) == 1, "digest");
  Handle<X509_ALGOR, X509_ALGOR_free> algorithm(X509_ALGOR_new());
  check(algorithm && X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(NID_sha256), V_ASN1_NULL, nullptr) == 1,
        "imprint algorithm");
  Handle<TS_MSG_IMPRINT, TS_MSG_IMPRINT_free> imprint(TS_MSG_IMPRINT_new());
  check(imprint && TS_MSG_IMPRINT_set_algo(imprint.get(), algorithm.get()) == 1 &&
            TS_MSG_IMPRINT_set_msg(imprint.get(), digest.data(), static_cast<int>(length)) == 1,
        "message imprint");
  Handle<ASN1_INTEGER, ASN1_INTEGER_free> nonce(randomInteger());
  Handle<TS_REQ, TS_REQ_free> request(TS_REQ_new());
  check(request && nonce && TS_REQ_set_version(request.get(), 1) == 1 &&
            TS_REQ_set_msg_imprint(request.get(), imprint.get()) == 1 &&
            TS_REQ_set_nonce(request.get(), nonce.get()) == 1 && TS_REQ_set_cert_req(request.get(), 1) == 1,
        "request");
  return request;
}

Handle<TS_RESP_CTX, TS_RESP_CTX_free> makeAuthority(X509* certificate, EVP_PKEY* key) {
  Handle<TS_RESP_CTX, TS_RESP_CTX_free> context(TS_RESP_CTX_new());
  Handle<ASN1_OBJECT, ASN1_OBJECT_free> policy(OBJ_txt2obj(kTimestampPolicy, 1));
  check(context && policy && TS_RESP_CTX_set_signer_cert(context.get(), certificate) == 1 &&
            TS_RESP_CTX_set_signer_key(context.get(), key) == 1 &&
            TS_RESP_CTX_set_signer_digest(context.get(), EVP_sha256()) == 1 &&
            TS_RESP_CTX_set_ess_cert_id_digest(context.get(), EVP_sha256()) == 1 &&
            TS_RESP_CTX_set_def_policy(context.get(), policy.get()) == 1 &&
            TS_RESP_CTX_add_md(context.get(), EVP_sha256()) == 1,
        "authority");
  TS_RESP_CTX_set_serial_cb(context.get(), randomSerial, nullptr);
  return context;
}

std::string toDer(TS_RESP* response) {
  unsigned char* der = nullptr;
  const int size = i2d_TS_RESP(response, &der);
  check(size > 0, "encoding");
  std::string bytes(reinterpret_cast<char*>(der), static_cast<std::size_t>(size));
  OPENSSL_free(der);
  return bytes;
}

}  // namespace

std::string timeStamp(std::string_view data, X509* tsaCertificate, EVP_PKEY* key) {
  const Handle<TS_REQ, TS_REQ_free> request = makeRequest(data);
  Handle<BIO, BIO_free> requestDer(BIO_new(BIO_s_mem()));
  check(requestDer && i2d_TS_REQ_bio(requestDer.get(), request.get()) == 1, "request encoding");
  const Handle<TS_RESP_CTX, TS_RESP_CTX_free> authority = makeAuthority(tsaCertificate, key);
  Handle<TS_RESP, TS_RESP_free> response(TS_RESP_create_response(authority.get(), requestDer.get()));
  check(response != nullptr, "response");
  const long status = ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(TS_RESP_get_status_info(response.get())));
  check(status == TS_STATUS_GRANTED, "the authority refused the request");
  return toDer(response.get());
}

std::string timeStampTime(std::string_view response) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(response.data());
  Handle<TS_RESP, TS_RESP_free> parsed(d2i_TS_RESP(nullptr, &cursor, static_cast<long>(response.size())));
  TS_TST_INFO* info = parsed ? TS_RESP_get_tst_info(parsed.get()) : nullptr;
  std::tm time{};
  check(info && ASN1_TIME_to_tm(TS_TST_INFO_get_time(info), &time) == 1, "the response has no time");
  std::array<char, 32> text{};
  check(std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &time) > 0, "time text");
  return text.data();
}

}  // namespace kiv::service

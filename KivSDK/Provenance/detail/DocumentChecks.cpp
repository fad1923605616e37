#include "KivSDK/Provenance/detail/DocumentChecks.hpp"

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>

#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "ZuDate/ZuDate.hpp"
#include "ZuDigest/ZuDigest.hpp"

namespace kiv::detail {
namespace {

using TimestampVerification = zu::detail::UniqueHandle<TS_VERIFY_CTX, TS_VERIFY_CTX_free>;

// The service's time-stamp policy, a UUID OID (X.667).
constexpr std::string_view kTimestampPolicy = "2.25.286676183924113436215391935245312734373";

ProvenanceCheck holds(std::string name, std::string message) {
  return {std::move(name), true, std::move(message)};
}
ProvenanceCheck fails(std::string name, std::string message) {
  return {std::move(name), false, std::move(message)};
}

std::string textOf(const zu::Data& bytes) { return {bytes.begin(), bytes.end()}; }

// The subject's common name, else its whole name on one line.
std::string subjectName(X509* certificate) {
  const X509_NAME* subject = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  unsigned char* text = nullptr;
  if (index >= 0 &&
      ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index))) >= 0) {
    std::string name(reinterpret_cast<char*>(text));
    OPENSSL_free(text);
    return name;
  }
  char line[256] = {};
  X509_NAME_oneline(subject, line, sizeof line);
  return line;
}

CertificateStore storeAt(const STACK_OF(X509) * authorities, std::time_t time) {
  CertificateStore store = storeTrusting(authorities);
  if (store) X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store.get()), time);
  return store;
}

// The signed bytes: the ranges of [offset length ...], each inside the file and after the one before.
std::optional<zu::Data> signedBytes(std::span<const std::uint8_t> pdf,
                                    const std::vector<std::int64_t>& range) {
  if (range.size() != 4 || range[0] != 0) return std::nullopt;
  zu::Data bytes;
  std::uint64_t end = 0;
  for (std::size_t i = 0; i < range.size(); i += 2) {
    if (range[i] < 0 || range[i + 1] < 0 || static_cast<std::uint64_t>(range[i]) < end) return std::nullopt;
    const auto offset = static_cast<std::uint64_t>(range[i]);
    const auto length = static_cast<std::uint64_t>(range[i + 1]);
    if (offset > pdf.size() || length > pdf.size() - offset) return std::nullopt;
    bytes.insert(bytes.end(), pdf.begin() + static_cast<std::ptrdiff_t>(offset),
                 pdf.begin() + static_cast<std::ptrdiff_t>(offset + length));
    end = offset + length;
  }
  return bytes;
}

// The certificate of the CMS's one signer, from the certificates it carries.
Certificate signerOf(CMS_ContentInfo* cms) {
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
  if (sk_CMS_SignerInfo_num(signers) != 1) return Certificate();
  CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, 0);
  const Certificates carried(CMS_get1_certs(cms));
  for (int i = 0; i < sk_X509_num(carried.get()); ++i) {
    X509* certificate = sk_X509_value(carried.get(), i);
    if (CMS_SignerInfo_cert_cmp(signer, certificate) == 0 && X509_up_ref(certificate) == 1) {
      return Certificate(certificate);
    }
  }
  return Certificate();
}

// Why CMS_verify failed, in words about the document.
std::string cmsFailure() {
  const unsigned long code = ERR_peek_last_error();
  const std::string reason = takeOpenSSLError("unknown failure");
  const int cmsReason = ERR_GET_LIB(code) == ERR_LIB_CMS ? ERR_GET_REASON(code) : 0;
  if (cmsReason == CMS_R_CONTENT_VERIFY_ERROR || cmsReason == CMS_R_VERIFICATION_FAILURE) {
    return "the signed bytes were changed after signing (" + reason + ")";
  }
  if (cmsReason == CMS_R_CERTIFICATE_VERIFY_ERROR) {
    return "the signer's certificate does not chain to the CA (" + reason + ")";
  }
  return "the signature does not verify (" + reason + ")";
}

std::optional<std::time_t> timeOf(const ASN1_GENERALIZEDTIME* time) {
  std::tm parts{};
  if (!time || ASN1_TIME_to_tm(time, &parts) != 1) return std::nullopt;
  return ::timegm(&parts);
}

// Checks a time-stamp token's imprint and policy before OpenSSL verifies its signature, so that a token for
// other data says so in plain words.
std::optional<std::string> imprintProblem(TS_TST_INFO* info, const zu::Data& manifestDigest) {
  TS_MSG_IMPRINT* imprint = TS_TST_INFO_get_msg_imprint(info);
  const ASN1_OBJECT* algorithm = nullptr;
  X509_ALGOR_get0(&algorithm, nullptr, nullptr, TS_MSG_IMPRINT_get_algo(imprint));
  if (OBJ_obj2nid(algorithm) != NID_sha256) return "its imprint is not a SHA-256 digest";
  const ASN1_OCTET_STRING* digest = TS_MSG_IMPRINT_get_msg(imprint);
  if (static_cast<std::size_t>(ASN1_STRING_length(digest)) != manifestDigest.size() ||
      !std::equal(manifestDigest.begin(), manifestDigest.end(), ASN1_STRING_get0_data(digest))) {
    return "it is over other data than manifest.jws (another manifest)";
  }
  char policy[128] = {};
  OBJ_obj2txt(policy, sizeof policy, TS_TST_INFO_get_policy_id(info), 1);
  if (policy != kTimestampPolicy) return "its policy " + std::string(policy) + " is not the service's";
  return std::nullopt;
}

// OpenSSL's check of the token: its signature, by a time-stamp authority certificate that chains to the CA.
std::optional<std::string> tokenProblem(TS_RESP* response, const STACK_OF(X509) * authorities,
                                        std::time_t time, const zu::Data& manifestDigest) {
  TimestampVerification context(TS_VERIFY_CTX_new());
  CertificateStore store = storeAt(authorities, time);
  auto* imprint = static_cast<unsigned char*>(OPENSSL_memdup(manifestDigest.data(), manifestDigest.size()));
  if (!context || !store || !imprint) {
    OPENSSL_free(imprint);
    return takeOpenSSLError("out of memory");
  }
  TS_VERIFY_CTX_set_flags(context.get(), TS_VFY_VERSION | TS_VFY_SIGNATURE | TS_VFY_IMPRINT);
  TS_VERIFY_CTX_set_imprint(context.get(), imprint, static_cast<long>(manifestDigest.size()));  // owns it now
  TS_VERIFY_CTX_set_store(context.get(), store.release());                                      // owns it now
  if (TS_RESP_verify_response(context.get(), response) == 1) return std::nullopt;
  return "it does not verify against the CA (" + takeOpenSSLError("unknown failure") + ")";
}

}  // namespace

CertificateParts CertificateParts::read(std::span<const std::uint8_t> pdf) {
  auto document = PdfDocument::open(pdf);
  if (!document) return {pdf, document.error(), document.error()};
  return {pdf, readSignature(*document), readAttachments(*document)};
}

zu::Result<const zu::Data*> CertificateParts::attachment(const std::string& name) const {
  if (!attachments) return attachments.error();
  const auto found = attachments->find(name);
  if (found == attachments->end()) {
    return ProvenanceError::make(ProvenanceError::malformed, "the PDF has no attachment " + name);
  }
  return &found->second;
}

std::string dateText(std::time_t time) {
  return zu::stringWithAPIFormat(zu::Date::fromTimeIntervalSince1970(static_cast<double>(time)),
                                 zu::DateFormatterStyle::api);
}

TimestampCheck checkTimestamp(const CertificateParts& parts, const STACK_OF(X509) * authorities) {
  const std::string name = "timestamp";
  const auto token = parts.attachment("timestamp.tsr");
  if (!token) return {fails(name, token.error().localizedDescription()), std::nullopt};
  const unsigned char* der = (*token)->data();
  const TimestampResponse response(d2i_TS_RESP(nullptr, &der, static_cast<long>((*token)->size())));
  TS_TST_INFO* info = response ? TS_RESP_get_tst_info(response.get()) : nullptr;
  if (!info || der != (*token)->data() + (*token)->size()) {
    takeOpenSSLError("");
    return {fails(name, "timestamp.tsr is not an RFC 3161 time-stamp response with a token"), std::nullopt};
  }
  const auto time = timeOf(TS_TST_INFO_get_time(info));
  if (!time) return {fails(name, "the time-stamp's time cannot be read"), std::nullopt};
  const auto manifest = parts.attachment("manifest.jws");
  if (!manifest)
    return {fails(name, "nothing to check it against: " + manifest.error().localizedDescription()), time};
  const zu::Data digest = zu::sha256(**manifest);
  auto problem = imprintProblem(info, digest);
  if (!problem) problem = tokenProblem(response.get(), authorities, *time, digest);
  if (problem) return {fails(name, "the time-stamp of " + dateText(*time) + " fails: " + *problem), time};
  return {holds(name, "stamped " + dateText(*time) +
                          " by a time-stamp authority of the CA, over the SHA-256 of manifest.jws"),
          time};
}

SignatureCheck checkPdfSignature(const CertificateParts& parts, const STACK_OF(X509) * authorities,
                                 std::time_t time) {
  const std::string name = "pdf-signature";
  if (!parts.signature) return {fails(name, parts.signature.error().localizedDescription()), Certificate()};
  const PdfSignature& signature = *parts.signature;
  if (signature.subFilter != "adbe.pkcs7.detached" && signature.subFilter != "ETSI.CAdES.detached") {
    return {fails(name,
                  "the signature is not a detached CMS signature (/SubFilter /" + signature.subFilter + ")"),
            Certificate()};
  }
  const auto data = signedBytes(parts.pdf, signature.byteRange);
  if (!data)
    return {fails(name, "the signature's /ByteRange is not [0 a b c] inside the file"), Certificate()};
  const auto* der = reinterpret_cast<const unsigned char*>(signature.contents.data());
  const Cms cms(d2i_CMS_ContentInfo(nullptr, &der, static_cast<long>(signature.contents.size())));
  if (!cms) {
    takeOpenSSLError("");
    return {fails(name, "the signature's /Contents is not a CMS structure"), Certificate()};
  }
  Certificate signer = signerOf(cms.get());
  if (!signer)
    return {fails(name, "the signature does not carry its one signer's certificate"), Certificate()};
  CertificateStore store = storeAt(authorities, time);
  const Bio input = readingBio(*data);
  if (!store || !input ||
      CMS_verify(cms.get(), nullptr, store.get(), input.get(), nullptr, CMS_DETACHED | CMS_BINARY) != 1) {
    return {fails(name, cmsFailure()), std::move(signer)};
  }
  return {holds(name, "signed by " + subjectName(signer.get()) + ", whose certificate chains to the CA on " +
                          dateText(time)),
          std::move(signer)};
}

ProvenanceCheck checkCoverage(const CertificateParts& parts) {
  const std::string name = "pdf-coverage";
  if (!parts.signature) return fails(name, parts.signature.error().localizedDescription());
  const std::vector<std::int64_t>& range = parts.signature->byteRange;
  if (range.size() != 4 || range[0] != 0 ||
      std::any_of(range.begin(), range.end(), [](auto n) { return n < 0; })) {
    return fails(name, "the signature's /ByteRange is not [0 a b c]");
  }
  if (static_cast<std::uint64_t>(range[1]) != parts.signature->contentsBegin ||
      static_cast<std::uint64_t>(range[2]) != parts.signature->contentsEnd) {
    return fails(name, "the byte range leaves out more than the signature's /Contents");
  }
  const std::uint64_t end = static_cast<std::uint64_t>(range[2]) + static_cast<std::uint64_t>(range[3]);
  const std::uint64_t size = parts.pdf.size();
  if (end < size) {
    return fails(name, std::to_string(size - end) +
                           " bytes were added after the signed range (an update after signing)");
  }
  if (end > size) return fails(name, "the byte range reaches past the end of the file");
  return holds(name, "the signature covers all " + std::to_string(size) + " bytes but its own /Contents");
}

ManifestCheck checkManifest(const CertificateParts& parts, X509* signer) {
  const std::string name = "manifest-signature";
  const auto attached = parts.attachment("manifest.jws");
  if (!attached) return {fails(name, attached.error().localizedDescription()), std::nullopt};
  auto manifest = readJWS(textOf(**attached), "ES256");
  if (!manifest)
    return {fails(name, "manifest.jws is " + manifest.error().localizedDescription()), std::nullopt};
  const auto failing = [&](const std::string& message) {
    return ManifestCheck{fails(name, message), *manifest};
  };
  if (manifest->headerText("typ") != "kiv-manifest")
    return failing("manifest.jws is not a manifest (\"typ\")");
  if (!signer) return failing("there is no PDF signer's key to check manifest.jws with");
  const std::string fingerprint = fingerprintOf(X509_get0_pubkey(signer));
  if (manifest->headerText("kid") != fingerprint) {
    return failing("manifest.jws names key " + manifest->headerText("kid") + ", the PDF is signed by " +
                   fingerprint);
  }
  if (!verifyES256(X509_get0_pubkey(signer), manifest->signingInput, manifest->signature)) {
    return failing("manifest.jws does not verify with the PDF signer's key " + fingerprint);
  }
  const zu::AnyCodable* issuer = manifest->payload.find("issuer");
  const zu::AnyCodable* issuerKey =
      issuer && issuer->dictionaryValue() ? issuer->dictionaryValue()->find("key_id") : nullptr;
  if (!issuerKey || !issuerKey->stringValue() || *issuerKey->stringValue() != fingerprint) {
    return failing("the manifest's issuer key is not the key that signs it");
  }
  const auto json = parts.attachment("manifest.json");
  if (!json) return failing(json.error().localizedDescription());
  if (textOf(**json) != manifest->payloadText)
    return failing("manifest.json is not the payload that manifest.jws signs");
  return {
      holds(name, "signed (ES256) by the PDF signer's key " + fingerprint + "; manifest.json is its payload"),
      std::move(manifest).value()};
}

}  // namespace kiv::detail

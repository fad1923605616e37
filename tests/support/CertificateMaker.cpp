#include "support/CertificateMaker.hpp"

#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <stdexcept>

#include "KivSDK/Provenance/detail/Base64Url.hpp"
#include "KivSDK/Provenance/detail/CanonicalJSON.hpp"
#include "ZuDigest/ZuDigest.hpp"

namespace kivtest {
namespace {

using zu::detail::UniqueHandle;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("OpenSSL: ") + what);
}

Certificate makeCertificate(EVP_PKEY* key, const std::string& commonName, X509* issuer, EVP_PKEY* issuerKey,
                            const std::vector<std::pair<int, std::string>>& extensions, long serial) {
  Certificate certificate(X509_new());
  require(certificate != nullptr, "X509_new");
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -24L * 3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 10L * 365 * 24 * 3600);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  X509* signer = issuer ? issuer : certificate.get();
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer));
  X509V3_CTX context;
  X509V3_set_ctx(&context, signer, certificate.get(), nullptr, nullptr, 0);
  for (const auto& [nid, value] : extensions) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    require(extension != nullptr, "X509V3_EXT_conf_nid");
    X509_add_ext(certificate.get(), extension, -1);
    X509_EXTENSION_free(extension);
  }
  require(X509_sign(certificate.get(), issuerKey ? issuerKey : key, EVP_sha256()) > 0, "X509_sign");
  return certificate;
}

std::string signedBy(EVP_PKEY* key, std::string_view input) {
  using DigestContext = UniqueHandle<EVP_MD_CTX, EVP_MD_CTX_free>;
  DigestContext context(EVP_MD_CTX_new());
  std::size_t size = 0;
  require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1, "sign init");
  const auto* bytes = reinterpret_cast<const unsigned char*>(input.data());
  require(EVP_DigestSign(context.get(), nullptr, &size, bytes, input.size()) == 1, "sign size");
  zu::Data der(size);
  require(EVP_DigestSign(context.get(), der.data(), &size, bytes, input.size()) == 1, "sign");
  const unsigned char* in = der.data();
  UniqueHandle<ECDSA_SIG, ECDSA_SIG_free> signature(d2i_ECDSA_SIG(nullptr, &in, static_cast<long>(size)));
  require(signature != nullptr, "d2i_ECDSA_SIG");
  zu::Data raw(64);
  BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), raw.data(), 32);
  BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), raw.data() + 32, 32);
  return kiv::detail::base64UrlEncode(raw);
}

// Writes PDF objects and remembers their offsets for the cross-reference table.
class PdfWriter {
 public:
  explicit PdfWriter(std::string base = "%PDF-1.7\n%\xe2\xe3\xcf\xd3\n") : out_(std::move(base)) {}
  void object(int number, const std::string& body) {
    offsets_[number] = out_.size();
    out_ += std::to_string(number) + " 0 obj\n" + body + "\nendobj\n";
  }
  void stream(int number, const std::string& dictionary, std::string_view data) {
    offsets_[number] = out_.size();
    out_ += std::to_string(number) + " 0 obj\n<< " + dictionary + " /Length " + std::to_string(data.size()) +
            " >>\nstream\n" + std::string(data) + "\nendstream\nendobj\n";
  }
  // The cross-reference table of the objects written, one subsection each, and the trailer.
  std::string finish(const std::string& trailer) {
    const std::size_t xref = out_.size();
    out_ += "xref\n";
    for (const auto& [number, offset] : offsets_) {
      out_ += std::to_string(number) + " 1\n" + xrefEntry(offset);
    }
    out_ += "trailer\n<< " + trailer + " >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
    return out_;
  }

 private:
  std::string out_;
  std::map<int, std::size_t> offsets_;
};

constexpr std::size_t kSignatureSpace = 8192;

// Fills the placeholders of the signature dictionary: the byte range, then the CMS over it.
zu::Data signPlaceholders(std::string pdf, X509* signer, EVP_PKEY* key) {
  const std::size_t contents = pdf.find("/Contents <0000") + 10;
  const std::size_t afterContents = pdf.find('>', contents) + 1;
  const std::string range = "[0 " + std::to_string(contents) + " " + std::to_string(afterContents) + " " +
                            std::to_string(pdf.size() - afterContents) + "]";
  const std::size_t rangeAt = pdf.find("/ByteRange [") + 11;
  const std::size_t rangeEnd = pdf.find(']', rangeAt) + 1;
  pdf.replace(rangeAt, rangeEnd - rangeAt, range + std::string(rangeEnd - rangeAt - range.size(), ' '));
  const std::string data = pdf.substr(0, contents) + pdf.substr(afterContents);
  kiv::detail::Bio input(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
  kiv::detail::Cms cms(CMS_sign(signer, key, nullptr, input.get(), CMS_DETACHED | CMS_BINARY));
  require(cms != nullptr, "CMS_sign");
  const int length = i2d_CMS_ContentInfo(cms.get(), nullptr);
  zu::Data der(static_cast<std::size_t>(length));
  unsigned char* out = der.data();
  i2d_CMS_ContentInfo(cms.get(), &out);
  const std::string hexText = hex(der);
  require(hexText.size() <= 2 * kSignatureSpace, "signature space");
  pdf.replace(contents + 1, hexText.size(), hexText);
  return {pdf.begin(), pdf.end()};
}

}  // namespace

PKey newP256Key() {
  PKey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  require(key != nullptr, "EC key");
  return key;
}

std::string pemOf(X509* certificate) {
  kiv::detail::Bio out(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(out.get(), certificate);
  char* data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  return {data, static_cast<std::size_t>(length)};
}

std::string hex(const zu::Data& bytes) { return zu::hexString(bytes); }

TestAuthority::TestAuthority(const std::string& name) {
  ca = makeCertificate(caKey.get(), name, nullptr, nullptr,
                       {{NID_basic_constraints, "critical,CA:TRUE"},
                        {NID_key_usage, "critical,keyCertSign,cRLSign"},
                        {NID_subject_key_identifier, "hash"}},
                       1);
  signing = makeCertificate(signingKey.get(), "Test Service signing", ca.get(), caKey.get(),
                            {{NID_key_usage, "critical,digitalSignature,nonRepudiation"},
                             {NID_ext_key_usage, "emailProtection"},
                             {NID_authority_key_identifier, "keyid:always"}},
                            2);
  tsa = makeCertificate(tsaKey.get(), "Test Service time-stamps", ca.get(), caKey.get(),
                        {{NID_key_usage, "critical,digitalSignature"},
                         {NID_ext_key_usage, "critical,timeStamping"},
                         {NID_authority_key_identifier, "keyid:always"}},
                        3);
}

std::string TestAuthority::fingerprint() const {
  return kiv::detail::fingerprintOf(X509_get0_pubkey(signing.get()));
}

std::string signES256(const zu::AnyCodable::Dictionary& header, const zu::AnyCodable::Dictionary& payload,
                      EVP_PKEY* key) {
  const std::string input =
      kiv::detail::base64UrlEncode(*kiv::detail::canonicalJSON(zu::AnyCodable(header))) + "." +
      kiv::detail::base64UrlEncode(*kiv::detail::canonicalJSON(zu::AnyCodable(payload)));
  return input + "." + signedBy(key, input);
}

zu::AnyCodable::Dictionary manifestPayload(const std::string& slug, const std::string& fingerprint,
                                           const std::vector<ManifestEntry>& files,
                                           const std::vector<const kiv::DeviceSigner*>& deviceKeys) {
  zu::AnyCodable::Array entries;
  for (const ManifestEntry& file : files) {
    entries.emplace_back(zu::AnyCodable::Dictionary{
        {"file_name", file.fileName},
        {"sha256", file.sha256},
        {"statement", file.statement.empty() ? zu::AnyCodable() : zu::AnyCodable(file.statement)}});
  }
  zu::AnyCodable::Array keys;
  for (const kiv::DeviceSigner* key : deviceKeys) {
    keys.emplace_back(zu::AnyCodable::Dictionary{
        {"key_id", key->keyId()}, {"public_key", kiv::detail::base64UrlEncode(key->publicKey())}});
  }
  return {{"confirmed_at", "2024-05-01T10:00:05Z"},
          {"created_at", "2024-05-01T09:58:00Z"},
          {"device_keys", std::move(keys)},
          {"files", std::move(entries)},
          {"issuer", zu::AnyCodable::Dictionary{{"key_id", fingerprint}, {"name", "Test Service"}}},
          {"name", "Kitchen"},
          {"slug", slug},
          {"version", 1}};
}

std::string manifestJWS(const zu::AnyCodable::Dictionary& payload, EVP_PKEY* key, const std::string& kid) {
  return signES256({{"alg", "ES256"}, {"kid", kid}, {"typ", "kiv-manifest"}}, payload, key);
}

zu::Data timestampOver(std::string_view data, const TestAuthority& authority, const std::string& policy) {
  UniqueHandle<TS_RESP_CTX, TS_RESP_CTX_free> context(TS_RESP_CTX_new());
  UniqueHandle<ASN1_OBJECT, ASN1_OBJECT_free> policyId(OBJ_txt2obj(policy.c_str(), 1));
  require(TS_RESP_CTX_set_signer_cert(context.get(), authority.tsa.get()) == 1, "TSA certificate");
  require(TS_RESP_CTX_set_signer_key(context.get(), authority.tsaKey.get()) == 1, "TSA key");
  require(TS_RESP_CTX_set_def_policy(context.get(), policyId.get()) == 1, "policy");
  require(TS_RESP_CTX_add_md(context.get(), EVP_sha256()) == 1, "digest");
  require(TS_RESP_CTX_set_signer_digest(context.get(), EVP_sha256()) == 1, "signer digest");
  require(TS_RESP_CTX_set_ess_cert_id_digest(context.get(), EVP_sha256()) == 1, "ESS digest");

  UniqueHandle<TS_REQ, TS_REQ_free> request(TS_REQ_new());
  UniqueHandle<TS_MSG_IMPRINT, TS_MSG_IMPRINT_free> imprint(TS_MSG_IMPRINT_new());
  UniqueHandle<X509_ALGOR, X509_ALGOR_free> algorithm(X509_ALGOR_new());
  X509_ALGOR_set_md(algorithm.get(), EVP_sha256());
  TS_MSG_IMPRINT_set_algo(imprint.get(), algorithm.get());
  const zu::Data digest = zu::sha256(data);
  TS_MSG_IMPRINT_set_msg(imprint.get(), const_cast<unsigned char*>(digest.data()),
                         static_cast<int>(digest.size()));
  TS_REQ_set_version(request.get(), 1);
  TS_REQ_set_msg_imprint(request.get(), imprint.get());
  TS_REQ_set_cert_req(request.get(), 1);
  UniqueHandle<ASN1_INTEGER, ASN1_INTEGER_free> nonce(ASN1_INTEGER_new());
  ASN1_INTEGER_set(nonce.get(), 424242);
  TS_REQ_set_nonce(request.get(), nonce.get());

  kiv::detail::Bio requestBytes(BIO_new(BIO_s_mem()));
  i2d_TS_REQ_bio(requestBytes.get(), request.get());
  kiv::detail::TimestampResponse response(TS_RESP_create_response(context.get(), requestBytes.get()));
  require(response != nullptr, "TS_RESP_create_response");
  const int length = i2d_TS_RESP(response.get(), nullptr);
  zu::Data der(static_cast<std::size_t>(length));
  unsigned char* out = der.data();
  i2d_TS_RESP(response.get(), &out);
  return der;
}

std::string xrefEntry(std::size_t offset) {
  std::string entry = std::to_string(offset);
  return std::string(10 - std::min<std::size_t>(entry.size(), 10), '0') + entry + " 00000 n \n";
}

zu::Data pdfOf(const std::map<int, std::string>& objects, const std::string& trailer) {
  PdfWriter writer;
  for (const auto& [number, body] : objects) writer.object(number, body);
  const std::string pdf = writer.finish(trailer);
  return {pdf.begin(), pdf.end()};
}

zu::Data signedCertificatePdf(const std::map<std::string, std::string>& attachments, X509* signer,
                              EVP_PKEY* key) {
  PdfWriter base;
  std::string names;
  int next = 7;
  std::vector<std::pair<int, std::pair<std::string, std::string>>> files;
  for (const auto& [name, content] : attachments) {
    names += "(" + name + ") " + std::to_string(next) + " 0 R ";
    files.push_back({next, {name, content}});
    next += 2;
  }
  base.object(1, "<< /Type /Catalog /Pages 2 0 R /Names << /EmbeddedFiles 4 0 R >> >>");
  base.object(2, "<< /Type /Pages /Kids [3 0 R] /Count 1 >>");
  base.object(3,
              "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Contents 5 0 R "
              "/Resources << /Font << /F1 6 0 R >> >> >>");
  base.object(4, "<< /Names [" + names + "] >>");
  base.stream(5, "", "BT /F1 14 Tf 72 770 Td (Certificate for report Kitchen) Tj ET");
  base.object(6, "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>");
  for (const auto& [number, file] : files) {
    base.object(number, "<< /Type /Filespec /F (" + file.first + ") /UF (" + file.first + ") /EF << /F " +
                            std::to_string(number + 1) + " 0 R >> >>");
    base.stream(number + 1, "/Type /EmbeddedFile", file.second);
  }
  const std::string original = base.finish("/Size " + std::to_string(next) + " /Root 1 0 R");

  // The signature comes in an incremental update, as the service adds it to the rendered document.
  PdfWriter update(original);
  const int field = next;
  update.object(1, "<< /Type /Catalog /Pages 2 0 R /Names << /EmbeddedFiles 4 0 R >> /AcroForm << /Fields [" +
                       std::to_string(field) + " 0 R] /SigFlags 3 >> >>");
  update.object(field,
                "<< /FT /Sig /T (Signature1) /Type /Annot /Subtype /Widget /Rect [0 0 0 0] /P 3 0 R /V " +
                    std::to_string(field + 1) + " 0 R >>");
  update.object(field + 1,
                "<< /Type /Sig /Filter /Adobe.PPKLite /SubFilter /adbe.pkcs7.detached /ByteRange [0 0 0 0" +
                    std::string(30, ' ') + "] /Contents <" + std::string(2 * kSignatureSpace, '0') + "> >>");
  const std::size_t previous = original.rfind("startxref\n") + 10;
  return signPlaceholders(update.finish("/Size " + std::to_string(field + 2) + " /Root 1 0 R /Prev " +
                                        std::to_string(std::stoul(original.substr(previous)))),
                          signer, key);
}

}  // namespace kivtest

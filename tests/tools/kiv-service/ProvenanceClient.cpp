#include "tools/kiv-service/ProvenanceClient.hpp"

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/wait.h>

#include "tools/kiv-service/ServiceFixture.hpp"

namespace kiv::service::test {
namespace {

template <auto Release>
struct Deleter {
  template <typename T>
  void operator()(T* handle) const {
    Release(handle);
  }
};
template <typename T, auto Release>
using Owned = std::unique_ptr<T, Deleter<Release>>;

Owned<X509, X509_free> readCertificate(const std::string& pem) {
  Owned<BIO, BIO_free> memory(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return Owned<X509, X509_free>(PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr));
}

std::string rsToDer(const std::string& rs) {
  Owned<ECDSA_SIG, ECDSA_SIG_free> signature(ECDSA_SIG_new());
  const auto* bytes = reinterpret_cast<const unsigned char*>(rs.data());
  ECDSA_SIG_set0(signature.get(), BN_bin2bn(bytes, 32, nullptr), BN_bin2bn(bytes + 32, 32, nullptr));
  unsigned char* der = nullptr;
  const int size = i2d_ECDSA_SIG(signature.get(), &der);
  std::string text(reinterpret_cast<char*>(der), static_cast<std::size_t>(size));
  OPENSSL_free(der);
  return text;
}

}  // namespace

std::string base64url(std::string_view bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int size =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(size));
  while (!text.empty() && text.back() == '=') text.pop_back();
  for (char& c : text) c = c == '+' ? '-' : c == '/' ? '_' : c;
  return text;
}

std::string fromBase64url(std::string_view text) {
  std::string standard(text);
  for (char& c : standard) c = c == '-' ? '+' : c == '_' ? '/' : c;
  const std::size_t padding = (4 - standard.size() % 4) % 4;
  standard.append(padding, '=');
  std::string bytes(standard.size(), '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                   reinterpret_cast<const unsigned char*>(standard.data()),
                                   static_cast<int>(standard.size()));
  if (size < static_cast<int>(padding)) return {};
  bytes.resize(static_cast<std::size_t>(size) - padding);
  return bytes;
}

TestDevice::TestDevice() : key_(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free) {
  std::array<unsigned char, 32> raw{};
  std::size_t size = raw.size();
  if (!key_ || EVP_PKEY_get_raw_public_key(key_.get(), raw.data(), &size) != 1) {
    throw std::runtime_error("Ed25519 key generation failed");
  }
  const std::string bytes(reinterpret_cast<const char*>(raw.data()), size);
  publicKey_ = base64url(bytes);
  keyId_ = sha256Hex(bytes);
}

nlohmann::json TestDevice::header() const {
  return {{"alg", "EdDSA"}, {"kid", keyId_}, {"typ", "kiv-file-statement"}};
}

nlohmann::json TestDevice::payload(const std::string& fileName, const std::string& sha256) const {
  return {{"date_taken", "2024-05-01T12:00:00Z"},
          {"file_name", fileName},
          {"key_id", keyId_},
          {"sha256", sha256},
          {"signed_at", "2024-05-01T12:00:02Z"}};
}

std::string TestDevice::sign(const nlohmann::json& header, const nlohmann::json& payload) const {
  return signTexts(header.dump(), payload.dump());
}

std::string TestDevice::signTexts(const std::string& header, const std::string& payload) const {
  const std::string input = base64url(header) + "." + base64url(payload);
  Owned<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
  std::array<unsigned char, 64> signature{};
  std::size_t size = signature.size();
  EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get());
  EVP_DigestSign(context.get(), signature.data(), &size, reinterpret_cast<const unsigned char*>(input.data()),
                 input.size());
  return input + "." + base64url({reinterpret_cast<const char*>(signature.data()), size});
}

bool verifiesEs256(const std::string& jws, const std::string& certificatePem) {
  const std::size_t dot = jws.rfind('.');
  const std::string rs = fromBase64url(jws.substr(dot + 1));
  if (rs.size() != 64) return false;
  const std::string der = rsToDer(rs);
  const Owned<X509, X509_free> certificate = readCertificate(certificatePem);
  Owned<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
  return certificate &&
         EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr,
                              X509_get0_pubkey(certificate.get())) == 1 &&
         EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(der.data()), der.size(),
                          reinterpret_cast<const unsigned char*>(jws.data()), dot) == 1;
}

std::string publicKeyFingerprint(const std::string& certificatePem) {
  const Owned<X509, X509_free> certificate = readCertificate(certificatePem);
  unsigned char* der = nullptr;
  const int size = i2d_PUBKEY(X509_get0_pubkey(certificate.get()), &der);
  std::string fingerprint = sha256Hex({reinterpret_cast<char*>(der), static_cast<std::size_t>(size)});
  OPENSSL_free(der);
  return fingerprint;
}

std::vector<std::string> splitPem(const std::string& chain) {
  static constexpr std::string_view end = "-----END CERTIFICATE-----\n";
  std::vector<std::string> certificates;
  for (std::size_t start = 0, stop = chain.find(end); stop != std::string::npos;
       stop = chain.find(end, start)) {
    certificates.push_back(chain.substr(start, stop + end.size() - start));
    start = stop + end.size();
  }
  return certificates;
}

std::string subjectOf(const std::string& certificatePem) {
  const Owned<X509, X509_free> certificate = readCertificate(certificatePem);
  Owned<BIO, BIO_free> text(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate.get()), 0, XN_FLAG_ONELINE);
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

CommandResult runCommand(const std::string& command, bool withErrors) {
  CommandResult result;
  FILE* pipe = popen((command + (withErrors ? " 2>&1" : " 2>/dev/null")).c_str(), "r");
  if (!pipe) return result;
  std::array<char, 4096> block{};
  while (std::size_t got = std::fread(block.data(), 1, block.size(), pipe))
    result.output.append(block.data(), got);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace kiv::service::test

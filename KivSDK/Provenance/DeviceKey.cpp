#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "KivSDK/Provenance/DeviceSigner.hpp"
#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "KivSDK/Provenance/detail/OpenSSL.hpp"
#include "KivSDK/Provenance/detail/PrivateFolder.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace kiv {
namespace {

using detail::PKey;

// A key file is a few hundred bytes; anything much larger is not one.
constexpr std::size_t kLargestKeyFile = std::size_t{64} << 10;
constexpr std::size_t kSignatureSize = 64;

zu::Error keyUnavailable(const std::string& path, const std::string& reason) {
  return ProvenanceError::make(ProvenanceError::deviceKeyUnavailable,
                               "The device key " + path + " cannot be used: " + reason);
}

zu::Result<PKey> readKey(const std::string& path) {
  const auto bytes = zu::detail::readWholeFile(path, kLargestKeyFile);
  if (!bytes) return bytes.error();
  detail::Bio input = detail::readingBio(*bytes);
  PKey key(input ? PEM_read_bio_PrivateKey(input.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519) {
    detail::takeOpenSSLError("");
    return keyUnavailable(path, "the file holds no Ed25519 private key (it is left as it is)");
  }
  return key;
}

zu::Result<zu::Data> pemOf(EVP_PKEY* key) {
  detail::Bio output(BIO_new(BIO_s_mem()));
  // Without a cipher OpenSSL writes the unencrypted PKCS#8 form, "BEGIN PRIVATE KEY".
  if (!output || PEM_write_bio_PrivateKey(output.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return ProvenanceError::make(ProvenanceError::deviceKeyUnavailable,
                                 detail::takeOpenSSLError("cannot write the key"));
  }
  char* text = nullptr;
  const long length = BIO_get_mem_data(output.get(), &text);
  return zu::Data(text, text + length);
}

// Writes a new key to `path` unless a file is there already: the key goes to a private temporary file that is
// linked into place, which fails when another thread or process was first. Either way the file's key wins.
zu::Result<void> makeKey(const std::string& path) {
  PKey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
  if (!key) return keyUnavailable(path, detail::takeOpenSSLError("no Ed25519 key could be made"));
  const auto pem = pemOf(key.get());
  if (!pem) return pem.error();
  std::string temporary = path + ".XXXXXX";
  const zu::detail::FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
  if (!file) return zu::Error::posix(errno);
  zu::Result<void> written = zu::detail::writeAll(file.get(), pem->data(), pem->size());
  if (written && ::fsync(file.get()) != 0) written = zu::Error::posix(errno);
  if (written && ::link(temporary.c_str(), path.c_str()) != 0 && errno != EEXIST)
    written = zu::Error::posix(errno);
  ::unlink(temporary.c_str());
  if (!written) return written;
  return zu::detail::syncFolder(std::filesystem::path(path).parent_path().string());
}

}  // namespace

std::string DeviceSigner::keyId() const { return detail::keyIdOf(publicKey()); }

struct DeviceKey::Key {
  PKey privateKey;
  zu::Data publicKey;
};

DeviceKey::DeviceKey(std::unique_ptr<Key> key) : key_(std::move(key)) {}

DeviceKey::~DeviceKey() = default;

std::string DeviceKey::installationKeyPath() { return detail::provenanceDirectory() + "/device-key.pem"; }

zu::Result<std::shared_ptr<DeviceKey>> DeviceKey::at(const std::string& path) {
  const auto folder = detail::privateFolder(std::filesystem::path(path).parent_path().string());
  if (!folder) return keyUnavailable(path, folder.error().localizedDescription());
  auto key = readKey(path);
  if (!key && key.error().domain() == zu::Error::posixDomain && key.error().code() == ENOENT) {
    if (auto made = makeKey(path); !made) return keyUnavailable(path, made.error().localizedDescription());
    key = readKey(path);
  }
  if (!key) {
    if (key.error().domain() == ProvenanceError::domain) return key.error();
    return keyUnavailable(path, key.error().localizedDescription());
  }
  auto parts = std::make_unique<Key>();
  std::size_t size = 32;
  parts->publicKey.resize(size);
  if (EVP_PKEY_get_raw_public_key(key->get(), parts->publicKey.data(), &size) != 1 || size != 32) {
    return keyUnavailable(path, detail::takeOpenSSLError("its public key cannot be read"));
  }
  parts->privateKey = std::move(*key);
  return std::shared_ptr<DeviceKey>(new DeviceKey(std::move(parts)));
}

zu::Data DeviceKey::publicKey() const { return key_->publicKey; }

zu::Result<zu::Data> DeviceKey::sign(std::span<const std::uint8_t> message) const {
  using DigestContext = zu::detail::UniqueHandle<EVP_MD_CTX, EVP_MD_CTX_free>;
  DigestContext context(EVP_MD_CTX_new());
  zu::Data signature(kSignatureSize);
  std::size_t size = signature.size();
  // Ed25519 hashes the message itself: no digest is named.
  if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_->privateKey.get()) != 1 ||
      EVP_DigestSign(context.get(), signature.data(), &size, message.data(), message.size()) != 1) {
    return ProvenanceError::make(
        ProvenanceError::deviceKeyUnavailable,
        "The device key cannot sign: " + detail::takeOpenSSLError("unknown failure"));
  }
  return signature;
}

}  // namespace kiv

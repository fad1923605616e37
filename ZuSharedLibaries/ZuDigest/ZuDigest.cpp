#include "ZuDigest/ZuDigest.hpp"

#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "ZuFoundation/FatalError.hpp"
#include "ZuFoundation/internal/Posix.hpp"
#include "ZuFoundation/internal/UniqueHandle.hpp"

namespace zu {
namespace {

using DigestContext = detail::UniqueHandle<EVP_MD_CTX, EVP_MD_CTX_free>;

DigestContext newContext(const EVP_MD* type) {
  DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), type, nullptr) != 1)
    fatalError("OpenSSL digest set-up failed");
  return context;
}

void update(EVP_MD_CTX* context, const void* bytes, std::size_t count) {
  if (EVP_DigestUpdate(context, bytes, count) != 1) fatalError("OpenSSL digest update failed");
}

Data finish(EVP_MD_CTX* context) {
  Data digest(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context, digest.data(), &length) != 1) fatalError("OpenSSL digest failed");
  digest.resize(length);
  return digest;
}

Data digestOf(const EVP_MD* type, const void* bytes, std::size_t count) {
  auto context = newContext(type);
  update(context.get(), bytes, count);
  return finish(context.get());
}

}  // namespace

Data sha256(std::span<const std::uint8_t> bytes) {
  return digestOf(EVP_sha256(), bytes.data(), bytes.size());
}

Data sha256(std::string_view text) { return digestOf(EVP_sha256(), text.data(), text.size()); }

Data md5(std::string_view text) { return digestOf(EVP_md5(), text.data(), text.size()); }

Result<Data> sha256OfFile(const std::string& path) {
  const auto file = detail::FileDescriptor::open(path, O_RDONLY);
  if (!file) return Error::posix(errno);
  ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);

  auto context = newContext(EVP_sha256());
  std::vector<std::uint8_t> block(fileDigestBlockSize);
  while (true) {
    const ssize_t count = detail::readSome(file.get(), block.data(), block.size());
    if (count < 0) return Error::posix(errno);
    if (count == 0) break;
    update(context.get(), block.data(), static_cast<std::size_t>(count));
  }
  return finish(context.get());
}

std::string hexString(std::span<const std::uint8_t> bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (auto byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 0x0F];
  }
  return text;
}

}  // namespace zu

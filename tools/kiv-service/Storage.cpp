#include "Storage.hpp"

#include <cerrno>
#include <charconv>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Crypto.hpp"

namespace kiv::service {
namespace {

std::string loadOrMakeKey(const std::filesystem::path& keyFile) {
  std::string key(32, '\0');
  const int existing = ::open(keyFile.c_str(), O_RDONLY | O_CLOEXEC);
  if (existing >= 0) {
    const ssize_t got = ::read(existing, key.data(), key.size());
    ::close(existing);
    if (got == static_cast<ssize_t>(key.size())) return key;
  }
  key = randomBytes(32);
  const int created = ::open(keyFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (created < 0 || ::write(created, key.data(), key.size()) != static_cast<ssize_t>(key.size())) {
    if (created >= 0) ::close(created);
    throw std::runtime_error("cannot write " + keyFile.string());
  }
  ::close(created);
  return key;
}

}  // namespace

UrlSigner::UrlSigner(const std::filesystem::path& keyFile, std::function<std::int64_t()> now)
    : key_(loadOrMakeKey(keyFile)), now_(std::move(now)) {}

std::int64_t UrlSigner::defaultClock() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string UrlSigner::sign(std::string_view method, std::string_view path, std::chrono::seconds ttl) const {
  const std::int64_t expires = (now_() + ttl.count()) / 60 * 60;
  const std::string expiresText = std::to_string(expires);
  return "expires=" + expiresText + "&signature=" + mac(method, path, expiresText);
}

UrlSigner::Verdict UrlSigner::verify(std::string_view method, std::string_view path, std::string_view expires,
                                     std::string_view signature) const {
  if (!constantTimeEquals(signature, mac(method, path, expires))) return Verdict::forged;
  std::int64_t expiry = 0;
  const auto [end, error] = std::from_chars(expires.data(), expires.data() + expires.size(), expiry);
  if (error != std::errc() || end != expires.data() + expires.size()) return Verdict::forged;
  return now_() < expiry ? Verdict::valid : Verdict::expired;
}

std::string UrlSigner::mac(std::string_view method, std::string_view path, std::string_view expires) const {
  std::string text;
  text.append(method).append("\n").append(path).append("\n").append(expires);
  return hmacSha256Hex(key_, text);
}

std::optional<KnownDigests::FileVersion> KnownDigests::versionOf(const std::filesystem::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  const auto nanoseconds = [](const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  };
  return FileVersion{info.st_dev, info.st_ino, info.st_size, nanoseconds(info.st_mtim),
                     nanoseconds(info.st_ctim)};
}

void KnownDigests::remember(const std::filesystem::path& path, std::string sha256) {
  const auto version = versionOf(path);
  std::lock_guard lock(mutex_);
  if (version) {
    known_[path] = {*version, std::move(sha256)};
  } else {
    known_.erase(path);
  }
}

std::optional<std::string> KnownDigests::digestOf(const std::filesystem::path& path) {
  const auto version = versionOf(path);
  if (!version) return std::nullopt;
  {
    std::lock_guard lock(mutex_);
    const auto found = known_.find(path);
    if (found != known_.end() && found->second.version == *version) return found->second.sha256;
  }
  // Read outside the lock, so that other files' answers do not wait for this one.
  std::string digest = sha256OfFile(path);
  if (digest.empty()) return std::nullopt;
  std::lock_guard lock(mutex_);
  known_[path] = {*version, digest};
  return digest;
}

void KnownDigests::forget(const std::filesystem::path& path) {
  std::lock_guard lock(mutex_);
  known_.erase(path);
}

ContentStorage::ContentStorage(std::filesystem::path directory) : directory_(std::move(directory)) {
  std::filesystem::create_directories(directory_);
}

ContentStorage::Upload ContentStorage::beginUpload(const std::string& fileSlug,
                                                   const std::string& ext) const {
  return Upload(directory_ / (fileSlug + ".part-" + toHex(randomBytes(6))), pathOf(fileSlug), ext, known_);
}

std::optional<std::string> ContentStorage::digestOf(const std::string& fileSlug) const {
  return known_->digestOf(pathOf(fileSlug));
}

void ContentStorage::remove(const std::string& fileSlug) const {
  std::error_code ignored;
  std::filesystem::remove(pathOf(fileSlug), ignored);
  known_->forget(pathOf(fileSlug));
}

ContentStorage::Upload::Upload(std::filesystem::path temporary, std::filesystem::path final, std::string ext,
                               std::shared_ptr<KnownDigests> known)
    : temporary_(std::move(temporary)),
      final_(std::move(final)),
      ext_(std::move(ext)),
      known_(std::move(known)),
      descriptor_(::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)),
      failed_(descriptor_ < 0) {
  buffer_.reserve(kBlockSize);
}

ContentStorage::Upload::Upload(Upload&& other) noexcept
    : temporary_(std::move(other.temporary_)),
      final_(std::move(other.final_)),
      ext_(std::move(other.ext_)),
      known_(std::move(other.known_)),
      descriptor_(std::exchange(other.descriptor_, -1)),
      size_(other.size_),
      failed_(other.failed_),
      buffer_(std::move(other.buffer_)),
      digest_(std::move(other.digest_)) {}

ContentStorage::Upload::~Upload() {
  if (descriptor_ < 0) return;
  ::close(descriptor_);
  ::unlink(temporary_.c_str());
}

bool ContentStorage::Upload::write(const char* data, std::size_t size) {
  digest_.update(data, size);
  size_ += static_cast<std::int64_t>(size);
  buffer_.insert(buffer_.end(), data, data + size);
  return buffer_.size() < kBlockSize || flush();
}

// TLS hands the body over in records of a few KiB; collecting them into large blocks saves most write calls.
bool ContentStorage::Upload::flush() {
  const char* data = buffer_.data();
  std::size_t left = buffer_.size();
  while (!failed_ && left > 0) {
    const ssize_t written = ::write(descriptor_, data, left);
    if (written < 0 && errno == EINTR) continue;
    failed_ = written <= 0;
    if (failed_) break;
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  buffer_.clear();
  return !failed_;
}

std::optional<StoredContent> ContentStorage::Upload::commit() {
  if (!flush() || ::fdatasync(descriptor_) != 0) return std::nullopt;
  ::close(std::exchange(descriptor_, -1));
  if (::rename(temporary_.c_str(), final_.c_str()) != 0) {
    ::unlink(temporary_.c_str());
    return std::nullopt;
  }
  StoredContent stored{ext_, digest_.finishHex(), size_};
  known_->remember(final_, stored.sha256);
  return stored;
}

FolderContentStore::FolderContentStore(const std::filesystem::path& dataDir)
    : storage_(dataDir / "files"), signer_(dataDir / "tls" / "url-signing.key") {}

std::string FolderContentStore::storagePath(const std::string& reportSlug, const std::string& fileSlug,
                                            const std::string& ext) {
  return "/storage/" + reportSlug + "/" + fileSlug + "." + ext;
}

std::string FolderContentStore::name() const { return "the folder " + storage_.directory().string(); }

std::string FolderContentStore::address(std::string_view method, const std::string& origin,
                                        const std::string& reportSlug, const std::string& fileSlug,
                                        const std::string& ext, std::chrono::seconds ttl) const {
  const std::string path = storagePath(reportSlug, fileSlug, ext);
  return origin + path + "?" + signer_.sign(method, path, ttl);
}

std::optional<StoredContent> FolderContentStore::inspect(const std::string&, const FileRecord& file) const {
  if (!file.storedExt) return std::nullopt;
  const std::filesystem::path path = storage_.pathOf(file.slug);
  std::optional<std::string> digest = storage_.digestOf(file.slug);
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  if (!digest || error) return std::nullopt;
  return StoredContent{*file.storedExt, std::move(*digest), static_cast<std::int64_t>(size)};
}

void FolderContentStore::remove(const std::string&, const std::string& fileSlug) const {
  storage_.remove(fileSlug);
}

void FolderContentStore::probe() const {
  if (::access(storage_.directory().c_str(), W_OK) != 0) {
    throw ContentStoreUnavailable(name() + " cannot be written: " + std::generic_category().message(errno));
  }
}

}  // namespace kiv::service

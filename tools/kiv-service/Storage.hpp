#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ContentStore.hpp"
#include "Crypto.hpp"

namespace kiv::service {

/**
 * Signs storage paths so that uploads and downloads need no application token: the URL carries its expiry
 * time and an HMAC-SHA-256 over method, path and expiry under a key kept in the data folder (so URLs outlive
 * a restart). Expiry times are whole minutes: requests for the same file within a minute get the same URL,
 * which is how a client recognises an upload it already has in flight.
 *
 * @par Thread Safety
 * Immutable after construction.
 */
class UrlSigner {
 public:
  enum class Verdict { valid, expired, forged };

  /// Loads the key from `keyFile`, making it on first use. `now` is the clock, replaceable for tests.
  explicit UrlSigner(const std::filesystem::path& keyFile, std::function<std::int64_t()> now = defaultClock);

  /// The query ("expires=...&signature=...") that lets `method` reach `path` for `ttl` (rounded down to
  /// minutes).
  std::string sign(std::string_view method, std::string_view path, std::chrono::seconds ttl) const;

  Verdict verify(std::string_view method, std::string_view path, std::string_view expires,
                 std::string_view signature) const;

  static std::int64_t defaultClock();

 private:
  std::string mac(std::string_view method, std::string_view path, std::string_view expires) const;

  std::string key_;
  std::function<std::int64_t()> now_;
};

/**
 * The digests of stored files, each with the version of the file it was taken from (inode, size, modification
 * and change times), so that a digest is only taken again from a file that changed on disk since. Kept in
 * memory: a restarted service reads each file once more.
 *
 * A change through the file system gives the file a new change time. Recent Linux kernels make it a
 * fine-grained one when the old time has been read (as `remember` and `digestOf` do), so even a change within
 * the same clock tick shows; on older kernels a change that keeps the size, made within the clock tick of the
 * last read, goes unseen. Damage below the file system, which no time shows, goes unseen too.
 *
 * @par Thread Safety
 * All members may be called from any thread.
 */
class KnownDigests {
 public:
  /// Records the digest of the file at `path` as it stands now.
  void remember(const std::filesystem::path& path, std::string sha256);
  /// The digest of the file at `path`: the recorded one while the file is unchanged, else read again and
  /// recorded; nothing when the file cannot be read.
  std::optional<std::string> digestOf(const std::filesystem::path& path);
  void forget(const std::filesystem::path& path);

 private:
  struct FileVersion {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modified = 0;  // nanoseconds since the epoch
    std::int64_t changed = 0;
    friend bool operator==(const FileVersion&, const FileVersion&) = default;
  };
  struct Known {
    FileVersion version;
    std::string sha256;
  };
  static std::optional<FileVersion> versionOf(const std::filesystem::path& path);

  std::mutex mutex_;
  std::map<std::filesystem::path, Known> known_;
};

/**
 * File content on disk, one file per file slug under DIR/files. Writes go to a temporary file that is renamed
 * into place when complete, so a reader never sees a half-written upload. The digest taken while an upload
 * is received stands for the stored file until the file changes on disk (see `KnownDigests`).
 *
 * @par Thread Safety
 * All members may be called from any thread.
 */
class ContentStorage {
 public:
  explicit ContentStorage(std::filesystem::path directory);

  /// A new upload: write blocks in order with `write`, then `commit`; destruction without commit discards it.
  class Upload {
   public:
    Upload(const Upload&) = delete;
    Upload& operator=(const Upload&) = delete;
    Upload(Upload&&) noexcept;
    ~Upload();
    bool write(const char* data, std::size_t size);
    /// Moves the content into place; nothing when the disk failed.
    std::optional<StoredContent> commit();

   private:
    friend class ContentStorage;
    Upload(std::filesystem::path temporary, std::filesystem::path final, std::string ext,
           std::shared_ptr<KnownDigests> known);
    bool flush();

    static constexpr std::size_t kBlockSize = 1 << 20;

    std::filesystem::path temporary_;
    std::filesystem::path final_;
    std::string ext_;
    std::shared_ptr<KnownDigests> known_;
    int descriptor_ = -1;
    std::int64_t size_ = 0;
    bool failed_ = false;
    std::vector<char> buffer_;
    Sha256 digest_;
  };

  /// A new upload of a file's content, stored under extension `ext`.
  Upload beginUpload(const std::string& fileSlug, const std::string& ext) const;
  std::filesystem::path pathOf(const std::string& fileSlug) const { return directory_ / fileSlug; }
  const std::filesystem::path& directory() const { return directory_; }
  /// The SHA-256 of the content stored for `fileSlug`, nothing when there is none.
  std::optional<std::string> digestOf(const std::string& fileSlug) const;
  void remove(const std::string& fileSlug) const;

 private:
  std::filesystem::path directory_;
  std::shared_ptr<KnownDigests> known_ = std::make_shared<KnownDigests>();
};

/**
 * The content store of a single node: a folder under the data folder, reached through the service's own
 * storage routes (/storage/REPORT/FILE.EXT) with addresses that `UrlSigner` signs.
 */
class FolderContentStore final : public ContentStore {
 public:
  /// Content under DATA/files, the signing key in DATA/tls.
  explicit FolderContentStore(const std::filesystem::path& dataDir);

  /// The storage route of a file's content.
  static std::string storagePath(const std::string& reportSlug, const std::string& fileSlug,
                                 const std::string& ext);

  std::string name() const override;
  std::string address(std::string_view method, const std::string& origin, const std::string& reportSlug,
                      const std::string& fileSlug, const std::string& ext,
                      std::chrono::seconds ttl) const override;
  bool receivesUploadsDirectly() const override { return false; }
  std::optional<StoredContent> inspect(const std::string& reportSlug, const FileRecord& file) const override;
  void remove(const std::string& reportSlug, const std::string& fileSlug) const override;
  void probe() const override;

  const ContentStorage& storage() const { return storage_; }
  const UrlSigner& signer() const { return signer_; }

 private:
  ContentStorage storage_;
  UrlSigner signer_;
};

}  // namespace kiv::service

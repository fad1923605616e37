#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Model.hpp"

namespace kiv::service {

/// The content of one stored file: the extension it was stored under, its digest and length.
struct StoredContent {
  std::string ext;
  std::string sha256;
  std::int64_t size = 0;
};

/// The content store cannot be reached; the request may be tried again later.
class ContentStoreUnavailable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/**
 * Where file content lives, addressed by report and file slug: the service hands clients addresses to PUT
 * and GET it there, and reads it back to check its digest.
 *
 * @par Thread Safety
 * All members may be called from any thread. Members that reach the store throw `ContentStoreUnavailable`
 * when it cannot be reached.
 */
class ContentStore {
 public:
  virtual ~ContentStore() = default;

  /// What the content store is, for messages: "the folder /srv/files", "the object store at ...".
  virtual std::string name() const = 0;

  /**
   * An address that lets anyone `method` ("PUT" or "GET") the file's content with extension `ext` for `ttl`
   * (whole minutes: asked again within the same minute, the address is the same). `origin` is the service's
   * own address as the client reached it.
   */
  virtual std::string address(std::string_view method, const std::string& origin,
                              const std::string& reportSlug, const std::string& fileSlug,
                              const std::string& ext, std::chrono::seconds ttl) const = 0;

  /// Whether clients upload without the service seeing it, so that it must look for new content itself.
  virtual bool receivesUploadsDirectly() const = 0;

  /// The file's content as stored now, read and hashed again; nothing when none is stored.
  virtual std::optional<StoredContent> inspect(const std::string& reportSlug,
                                               const FileRecord& file) const = 0;

  /// Removes the file's content, if any.
  virtual void remove(const std::string& reportSlug, const std::string& fileSlug) const = 0;

  /// Throws `ContentStoreUnavailable` unless the store answers now.
  virtual void probe() const = 0;
};

}  // namespace kiv::service

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ContentStore.hpp"
#include "SigV4.hpp"

namespace httplib {
class Client;
struct Result;
}  // namespace httplib

namespace kiv::service {

/// Where an S3-compatible object store is and how to sign for it.
struct ObjectStoreOptions {
  std::string endpoint;  ///< "http://127.0.0.1:7480" or "https://s3.example.com": what clients reach, too
  std::string bucket;
  sigv4::Credentials credentials;
};

/**
 * File content in a bucket of an S3-compatible object store, one object per file under
 * "REPORT/FILE.EXT". Clients PUT and GET it with presigned SigV4 addresses of the store itself; the service
 * signs its own requests (list, get, delete) in the header form and hashes what it reads back. The bucket is
 * made on construction when missing.
 */
class ObjectContentStore final : public ContentStore {
 public:
  /// Throws `ContentStoreUnavailable` naming the store when it cannot be reached or refuses the credentials.
  ObjectContentStore(ObjectStoreOptions options, std::function<std::int64_t()> now);
  ~ObjectContentStore() override;

  std::string name() const override;
  std::string address(std::string_view method, const std::string& origin, const std::string& reportSlug,
                      const std::string& fileSlug, const std::string& ext,
                      std::chrono::seconds ttl) const override;
  bool receivesUploadsDirectly() const override { return true; }
  std::optional<StoredContent> inspect(const std::string& reportSlug, const FileRecord& file) const override;
  void remove(const std::string& reportSlug, const std::string& fileSlug) const override;
  void probe() const override;

 private:
  struct Object {
    std::string key;
    std::string lastModified;
  };

  /// The objects whose keys begin with `prefix`.
  std::vector<Object> list(const std::string& prefix) const;
  /// One signed request without a body; answers the status; `receive` takes the answer's body in blocks.
  int request(const std::string& method, const std::string& key,
              const std::map<std::string, std::string>& query,
              const std::function<bool(const char*, std::size_t)>& receive = {}) const;

  ObjectStoreOptions options_;
  std::string host_;  ///< the endpoint's host[:port], as the "host" header and signatures carry it
  std::function<std::int64_t()> now_;
};

}  // namespace kiv::service

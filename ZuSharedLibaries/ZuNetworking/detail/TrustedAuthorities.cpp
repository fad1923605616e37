#include "ZuNetworking/detail/TrustedAuthorities.hpp"

#include <curl/curl.h>
#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "ZuFoundation/detail/UniqueHandle.hpp"
#include "ZuNetworking/detail/CurlHandles.hpp"

namespace zu::detail {
namespace {

using X509Handle = UniqueHandle<X509, X509_free>;
using X509Store = UniqueHandle<X509_STORE, X509_STORE_free>;

/// What tells one version of a file from the next without reading it.
struct FileVersion {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t modified = 0;  // nanoseconds since the epoch
  std::int64_t changed = 0;

  friend bool operator==(const FileVersion&, const FileVersion&) = default;
};

std::int64_t nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::optional<FileVersion> versionOf(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return FileVersion{info.st_dev, info.st_ino, info.st_size, nanoseconds(info.st_mtim),
                     nanoseconds(info.st_ctim)};
}

/// The certificates of one version of a PEM file.
struct ParsedFile {
  FileVersion version;
  std::vector<X509Handle> certificates;
};

// Read the way libcurl reads a bundle, so that the same files give the same authorities.
std::shared_ptr<const ParsedFile> parse(const std::string& path, const FileVersion& version) {
  const X509Store scratch(X509_STORE_new());
  if (!scratch || X509_STORE_load_file(scratch.get(), path.c_str()) != 1) return nullptr;
  auto parsed = std::make_shared<ParsedFile>();
  parsed->version = version;
  STACK_OF(X509)* all = X509_STORE_get1_all_certs(scratch.get());
  while (X509* certificate = sk_X509_pop(all)) parsed->certificates.emplace_back(certificate);
  sk_X509_free(all);
  return parsed;
}

/// The files parsed so far, each as of its last version seen.
class ParsedFiles {
 public:
  /// The file's certificates, parsed again when it changed; nothing when it cannot be read.
  std::shared_ptr<const ParsedFile> certificatesOf(const std::string& path) {
    const auto version = versionOf(path);
    if (!version) return nullptr;
    // Parsing under the lock lets connections that start together wait for one parse.
    std::lock_guard lock(mutex_);
    auto& parsed = files_[path];
    if (!parsed || parsed->version != *version) parsed = parse(path, *version);
    return parsed;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<const ParsedFile>> files_;
};

ParsedFiles& parsedFiles() {
  // Never destroyed: session workers may still connect while the process exits.
  static auto* instance = new ParsedFiles;
  return *instance;
}

/// The bundle file and the folder of hashed certificates that libcurl was built to trust; empty: none.
struct SystemAuthorities {
  std::string bundle;
  std::string folder;
};

const SystemAuthorities& systemAuthorities() {
  static const SystemAuthorities paths = [] {
    ensureCurlGlobalInit();
    const CurlEasy easy(curl_easy_init());
    const char* bundle = nullptr;
    const char* folder = nullptr;
    if (easy) {
      curl_easy_getinfo(easy.get(), CURLINFO_CAINFO, &bundle);
      curl_easy_getinfo(easy.get(), CURLINFO_CAPATH, &folder);
    }
    return SystemAuthorities{bundle ? bundle : "", folder ? folder : ""};
  }();
  return paths;
}

bool addCertificates(X509_STORE* store, const std::string& path) {
  const auto parsed = parsedFiles().certificatesOf(path);
  if (!parsed || parsed->certificates.empty()) return false;
  for (const auto& certificate : parsed->certificates) {
    if (X509_STORE_add_cert(store, certificate.get()) != 1) return false;
  }
  return true;
}

}  // namespace

bool addTrustedAuthorities(X509_STORE* store, const std::string& additionalFile) {
  const SystemAuthorities& system = systemAuthorities();
  if (!system.bundle.empty() && !addCertificates(store, system.bundle)) return false;
  // A folder is only searched when a certificate is looked up, so adding it costs nothing now.
  if (!system.folder.empty() && X509_STORE_load_path(store, system.folder.c_str()) != 1) return false;
  return additionalFile.empty() || addCertificates(store, additionalFile);
}

}  // namespace zu::detail

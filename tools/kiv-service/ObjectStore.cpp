#include "ObjectStore.hpp"

#include <algorithm>
#include <utility>

#include <httplib.h>

#include "Crypto.hpp"

namespace kiv::service {
namespace {

// Presigned addresses may live at most a week.
constexpr std::int64_t kLongestExpiry = std::int64_t{7} * 24 * 3600;
constexpr std::chrono::seconds kConnectTimeout{5};
constexpr std::chrono::seconds kReadTimeout{60};

std::string fileKey(const std::string& reportSlug, const std::string& fileSlug) {
  return reportSlug + "/" + fileSlug + ".";
}

// The text of each <tag>...</tag> inside `xml`, in order. List answers hold nothing that needs a real XML
// reader: keys are slugs and extensions, and the other fields are numbers and dates.
std::vector<std::string> elements(const std::string& xml, const std::string& tag) {
  std::vector<std::string> found;
  const std::string open = "<" + tag + ">";
  const std::string close = "</" + tag + ">";
  for (std::size_t start = xml.find(open); start != std::string::npos; start = xml.find(open, start)) {
    start += open.size();
    const std::size_t end = xml.find(close, start);
    if (end == std::string::npos) break;
    found.push_back(xml.substr(start, end - start));
  }
  return found;
}

std::string hostOf(const std::string& endpoint) {
  const std::size_t scheme = endpoint.find("://");
  std::string host = scheme == std::string::npos ? endpoint : endpoint.substr(scheme + 3);
  return host.substr(0, host.find('/'));
}

}  // namespace

ObjectContentStore::ObjectContentStore(ObjectStoreOptions options, std::function<std::int64_t()> now)
    : options_(std::move(options)), host_(hostOf(options_.endpoint)), now_(std::move(now)) {
  const int status = request("HEAD", "", {});
  if (status == 404) {
    if (const int made = request("PUT", "", {}); made != 200) {
      throw ContentStoreUnavailable(name() + " refused to make the bucket (HTTP " + std::to_string(made) +
                                    ")");
    }
  } else if (status != 200) {
    throw ContentStoreUnavailable(name() + " refused access to the bucket (HTTP " + std::to_string(status) +
                                  "): check the access key and secret");
  }
}

ObjectContentStore::~ObjectContentStore() = default;

std::string ObjectContentStore::name() const {
  return "the object store at " + options_.endpoint + " (bucket " + options_.bucket + ")";
}

std::string ObjectContentStore::address(std::string_view method, const std::string&,
                                        const std::string& reportSlug, const std::string& fileSlug,
                                        const std::string& ext, std::chrono::seconds ttl) const {
  // Signed as of the start of the minute and valid to just before a whole minute, so that the same request
  // within a minute gets the same address, as the service's own storage addresses do. An expiry that has
  // passed already (a time to live under a minute) is signed so that it has.
  const std::int64_t now = now_();
  const std::int64_t expiry = (now + ttl.count()) / 60 * 60;
  const std::int64_t signedAt = std::min(now / 60 * 60, expiry - 2);
  const std::int64_t expires = std::clamp(expiry - 1 - signedAt, std::int64_t{1}, kLongestExpiry);
  const std::string path = "/" + options_.bucket + "/" + fileKey(reportSlug, fileSlug) + ext;
  const sigv4::Request request{std::string(method), path, {}, {}};
  return options_.endpoint + sigv4::uriEncode(path, true) + "?" +
         sigv4::presignedQuery(request, host_, options_.credentials, signedAt, expires);
}

std::optional<StoredContent> ObjectContentStore::inspect(const std::string& reportSlug,
                                                         const FileRecord& file) const {
  const std::vector<Object> objects = list(fileKey(reportSlug, file.slug));
  if (objects.empty()) return std::nullopt;
  // A client that asked for addresses of two extensions and used both: the last upload counts.
  const Object& latest =
      *std::max_element(objects.begin(), objects.end(),
                        [](const Object& a, const Object& b) { return a.lastModified < b.lastModified; });
  Sha256 digest;
  std::int64_t size = 0;
  const int status = request("GET", latest.key, {}, [&](const char* data, std::size_t length) {
    digest.update(data, length);
    size += static_cast<std::int64_t>(length);
    return true;
  });
  if (status == 404) return std::nullopt;  // removed since it was listed
  if (status != 200) throw ContentStoreUnavailable(name() + " answered HTTP " + std::to_string(status));
  return StoredContent{latest.key.substr(latest.key.rfind('.') + 1), digest.finishHex(), size};
}

void ObjectContentStore::remove(const std::string& reportSlug, const std::string& fileSlug) const {
  for (const Object& object : list(fileKey(reportSlug, fileSlug))) request("DELETE", object.key, {});
}

void ObjectContentStore::probe() const {
  if (const int status = request("HEAD", "", {}); status != 200) {
    throw ContentStoreUnavailable(name() + " answered HTTP " + std::to_string(status));
  }
}

std::vector<ObjectContentStore::Object> ObjectContentStore::list(const std::string& prefix) const {
  std::string body;
  const int status =
      request("GET", "", {{"list-type", "2"}, {"prefix", prefix}}, [&](const char* data, std::size_t length) {
        body.append(data, length);
        return true;
      });
  if (status != 200) throw ContentStoreUnavailable(name() + " answered HTTP " + std::to_string(status));
  const std::vector<std::string> keys = elements(body, "Key");
  const std::vector<std::string> dates = elements(body, "LastModified");
  std::vector<Object> objects;
  for (std::size_t i = 0; i < keys.size(); ++i)
    objects.push_back({keys[i], i < dates.size() ? dates[i] : ""});
  return objects;
}

int ObjectContentStore::request(const std::string& method, const std::string& key,
                                const std::map<std::string, std::string>& query,
                                const std::function<bool(const char*, std::size_t)>& receive) const {
  const std::int64_t now = now_();
  const std::string path = "/" + options_.bucket + (key.empty() ? "" : "/" + key);
  sigv4::Request signing{
      method,
      path,
      query,
      {{"host", host_}, {"x-amz-content-sha256", sha256Hex("")}, {"x-amz-date", sigv4::timestamp(now)}}};
  httplib::Headers headers;
  for (const auto& [header, value] : signing.headers) headers.emplace(header, value);
  headers.emplace("Authorization", sigv4::authorization(signing, options_.credentials, now));

  httplib::Request call;
  call.method = method;
  call.path = sigv4::uriEncode(path, true);
  std::string separator = "?";
  for (const auto& [name, value] : query) {
    call.path += separator + sigv4::uriEncode(name, false) + "=" + sigv4::uriEncode(value, false);
    separator = "&";
  }
  call.headers = std::move(headers);
  if (receive) {
    call.content_receiver = [&](const char* data, std::size_t length, std::uint64_t, std::uint64_t) {
      return receive(data, length);
    };
  }
  httplib::Client client(options_.endpoint);
  client.set_connection_timeout(kConnectTimeout);
  client.set_read_timeout(kReadTimeout);
  const httplib::Result result = client.send(call);
  if (!result) {
    throw ContentStoreUnavailable(name() + " cannot be reached: " + httplib::to_string(result.error()));
  }
  return result->status;
}

}  // namespace kiv::service

#include "support/Http.hpp"

#include <algorithm>
#include <memory>
#include <mutex>

namespace kiv::service::test {
namespace {

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* reply) {
  static_cast<Reply*>(reply)->body.append(data, size * count);
  return size * count;
}

std::size_t appendHeader(char* data, std::size_t size, std::size_t count, void* reply) {
  const std::string line(data, size * count);
  const std::size_t colon = line.find(':');
  if (colon != std::string::npos) {
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::size_t start = line.find_first_not_of(' ', colon + 1);
    const std::size_t end = line.find_last_not_of("\r\n");
    static_cast<Reply*>(reply)->headers[name] = start <= end ? line.substr(start, end - start + 1) : "";
  }
  return size * count;
}

}  // namespace

std::string Reply::detail() const {
  const nlohmann::json object = json();
  return object.is_object() && object.contains("detail") && object["detail"].is_string()
             ? object["detail"].get<std::string>()
             : std::string();
}

Reply perform(const Request& request, const std::filesystem::path& caFile) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(nullptr, curl_slist_free_all);
  for (const std::string& header : request.headers)
    headers.reset(curl_slist_append(headers.release(), header.c_str()));
  Reply reply;
  curl_easy_setopt(curl.get(), CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, request.method.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_CAINFO, caFile.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout.count()));
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply);
  curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, appendHeader);
  curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &reply);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  if (request.hasBody || request.method == "POST" || request.method == "PUT" || request.method == "PATCH") {
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  }
  if (request.method == "HEAD") curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
  reply.error = curl_easy_perform(curl.get());
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
  return reply;
}

}  // namespace kiv::service::test

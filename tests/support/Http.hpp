#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <nlohmann/json.hpp>

namespace kiv::service::test {

/// What came back: `error` is the transport's result, kept apart from the HTTP status.
struct Reply {
  CURLcode error = CURLE_OK;
  long status = 0;
  std::string body;
  std::map<std::string, std::string> headers;  ///< names in lower case

  nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
  std::string detail() const;
};

/// One request with libcurl, verifying the server against `caFile`; `timeout` bounds the whole exchange.
struct Request {
  std::string method = "GET";
  std::string url;
  std::string body;
  bool hasBody = false;
  std::vector<std::string> headers;
  std::chrono::milliseconds timeout{10000};
};

Reply perform(const Request& request, const std::filesystem::path& caFile);

}  // namespace kiv::service::test

#pragma once

#include <curl/curl.h>

#include <memory>
#include <thread>

namespace zu::detail {

struct CurlEasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlMultiDeleter {
  void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
struct CurlSlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;
using CurlMulti = std::unique_ptr<CURLM, CurlMultiDeleter>;
using CurlSlist = std::unique_ptr<curl_slist, CurlSlistDeleter>;

/// Initialises libcurl once per process, before the first handle is made.
void ensureCurlGlobalInit();

/**
 * Keeps the thread of a session worker that was stopped from its own thread (a callback dropped the last
 * reference to its session) and so could not be joined. Such threads are joined when the process exits,
 * before libcurl's TLS library tears itself down under them.
 */
void retireWorker(std::thread worker);

}  // namespace zu::detail

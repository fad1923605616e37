#pragma once

#include <curl/curl.h>

#include <thread>

#include "ZuFoundation/detail/UniqueHandle.hpp"

namespace zu::detail {

using CurlEasy = UniqueHandle<CURL, curl_easy_cleanup>;
using CurlMulti = UniqueHandle<CURLM, curl_multi_cleanup>;
using CurlSlist = UniqueHandle<curl_slist, curl_slist_free_all>;

/// Initialises libcurl once per process, before the first handle is made.
void ensureCurlGlobalInit();

/**
 * Keeps the thread of a session worker that was stopped from its own thread (a callback dropped the last
 * reference to its session) and so could not be joined. Such threads are joined when the process exits,
 * before libcurl's TLS library tears itself down under them.
 */
void retireWorker(std::thread worker);

}  // namespace zu::detail

#pragma once

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <thread>

#include "ZuFoundation/internal/UniqueHandle.hpp"

namespace zu::detail {

using CurlEasy = UniqueHandle<CURL, curl_easy_cleanup>;
using CurlMulti = UniqueHandle<CURLM, curl_multi_cleanup>;
using CurlSlist = UniqueHandle<curl_slist, curl_slist_free_all>;

/// Initialises libcurl once per process, before the first handle is made.
void ensureCurlGlobalInit();

/**
 * Calls `stop` when the process exits, if `owner` is still alive then: before libcurl's TLS library tears
 * itself down, which it does in an exit handler too, under any worker still running. (A worker that ends
 * after it would also leave its thread's TLS state behind.)
 */
void stopAtExit(std::weak_ptr<void> owner, std::function<void()> stop);

/**
 * Keeps the thread of a session worker that was stopped from its own thread (a callback dropped the last
 * reference to its session) and so could not be joined. Such threads are joined when the process exits,
 * after the workers of `stopAtExit` have been stopped.
 */
void retireWorker(std::thread worker);

}  // namespace zu::detail

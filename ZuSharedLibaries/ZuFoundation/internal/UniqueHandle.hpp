#pragma once

#include <memory>

namespace zu::detail {

/// Releases a C library's handle with that library's own function; the deleter of `UniqueHandle`.
template <auto Release>
struct ReleaseWith {
  template <class T>
  void operator()(T* handle) const {
    static_cast<void>(Release(handle));
  }
};

/**
 * A C library's handle owned like any other resource: released by `Release` when the owner goes.
 *
 * @code
 * using CurlEasy = zu::detail::UniqueHandle<CURL, curl_easy_cleanup>;
 * CurlEasy easy(curl_easy_init());
 * @endcode
 */
template <class T, auto Release>
using UniqueHandle = std::unique_ptr<T, ReleaseWith<Release>>;

}  // namespace zu::detail

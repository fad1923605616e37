#pragma once

#include <memory>

namespace kiv::service {

/// Calls the C library's release function `Release` on a handle; for `std::unique_ptr` of C handles.
template <auto Release>
struct HandleDeleter {
  template <typename T>
  void operator()(T* handle) const {
    static_cast<void>(Release(handle));
  }
};

/// A C handle owned through its release function: `Handle<cairo_t, cairo_destroy>`.
template <typename T, auto Release>
using Handle = std::unique_ptr<T, HandleDeleter<Release>>;

}  // namespace kiv::service

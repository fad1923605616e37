#pragma once

#include <memory>
#include <utility>

#include <unistd.h>

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

/// An owned POSIX file descriptor, closed on destruction; -1 holds none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }

  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

}  // namespace kiv::service

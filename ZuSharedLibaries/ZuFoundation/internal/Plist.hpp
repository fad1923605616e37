#pragma once

#include <plist/plist.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/internal/UniqueHandle.hpp"

// libplist stays behind this header: public headers never see `plist_t`.
namespace zu::detail {

/// Owns a libplist node tree (a root node, or one not yet handed to a container).
using Plist = UniqueHandle<std::remove_pointer_t<plist_t>, plist_free>;

/// Parses a binary or XML property list; an empty handle when the bytes are neither.
inline Plist parsePlist(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0 || size > UINT32_MAX) return nullptr;
  plist_t root = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(bytes), static_cast<std::uint32_t>(size), &root);
  return Plist(root);
}

/// The binary property list of `root`.
inline Data binaryPlist(plist_t root) {
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  const UniqueHandle<char, plist_to_bin_free> owned(bytes);
  return Data(bytes, bytes + length);
}

}  // namespace zu::detail

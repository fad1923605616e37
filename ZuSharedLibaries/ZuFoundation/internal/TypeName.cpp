#include "ZuFoundation/internal/TypeName.hpp"

#include <cxxabi.h>

#include <cstdlib>

#include "ZuFoundation/internal/UniqueHandle.hpp"

namespace zu::detail {

std::string typeName(const std::type_info& type) {
  int status = 0;
  const UniqueHandle<char, std::free> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status));
  return status == 0 && name ? name.get() : type.name();
}

}  // namespace zu::detail

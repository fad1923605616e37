#pragma once

#include <string>
#include <typeinfo>

namespace zu::detail {

/// The C++ name of a type ("std::vector<int, std::allocator<int> >"), or its mangled name when the runtime
/// cannot demangle it.
std::string typeName(const std::type_info& type);

}  // namespace zu::detail

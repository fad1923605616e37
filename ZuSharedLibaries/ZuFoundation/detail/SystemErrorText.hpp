#pragma once

#include <string>

namespace zu::detail {

/// The system's text for an `errno` value (thread-safe, unlike strerror).
std::string systemErrorText(int errorNumber);

}  // namespace zu::detail

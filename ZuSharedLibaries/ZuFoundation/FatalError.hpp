#pragma once

#include <source_location>
#include <string_view>

namespace zu {

/**
 * Stops the program: a broken contract that the SDK treats as a programming error (never an expected
 * failure such as bad input or a network error). Writes "Fatal error: <message>: file <file>, line <line>"
 * to standard error, then calls `std::abort()`.
 */
[[noreturn]] void fatalError(std::string_view message,
                             std::source_location location = std::source_location::current());

}  // namespace zu

#pragma once

#include <string_view>

namespace zu {

/**
 * Stops the program: a broken contract that the SDK treats as a programming error (never an expected
 * failure such as bad input or a network error). Writes "Fatal error: <message>: file <file>, line <line>"
 * to standard error, then calls `std::abort()`.
 */
[[noreturn]] void fatalError(std::string_view message, const char* file = __builtin_FILE(),
                             int line = __builtin_LINE());

}  // namespace zu

#include "ZuFoundation/FatalError.hpp"

#include <cstdio>
#include <cstdlib>

namespace zu {

void fatalError(std::string_view message, const char* file, int line) {
  // Nothing is left to do when the message cannot be written: the program stops either way.
  (void)std::fprintf(stderr, "Fatal error: %.*s: file %s, line %u\n", static_cast<int>(message.size()),
                     message.data(), file, line);
  (void)std::fflush(stderr);
  std::abort();
}

}  // namespace zu

#include "ZuFoundation/FatalError.hpp"

#include <cstdio>
#include <cstdlib>

namespace zu {

void fatalError(std::string_view message, const char* file, int line) {
  std::fprintf(stderr, "Fatal error: %.*s: file %s, line %u\n", static_cast<int>(message.size()),
               message.data(), file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace zu

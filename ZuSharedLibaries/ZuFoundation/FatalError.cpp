#include "ZuFoundation/FatalError.hpp"

#include <cstdio>
#include <cstdlib>

namespace zu {

void fatalError(std::string_view message, std::source_location location) {
  std::fprintf(stderr, "Fatal error: %.*s: file %s, line %u\n", static_cast<int>(message.size()), message.data(),
               location.file_name(), static_cast<unsigned>(location.line()));
  std::fflush(stderr);
  std::abort();
}

}  // namespace zu

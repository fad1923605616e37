#include "ZuImage/detail/PixelBuffer.hpp"

#include <sys/mman.h>
#include <unistd.h>

namespace zu::detail {
namespace {

/// The size of a huge page on x86-64 and most 64-bit ARM systems: smaller buffers gain nothing.
constexpr std::size_t kHugePage = std::size_t{2} << 20;

/// Asks for huge pages behind the whole pages of `bytes` bytes at `start`, none of them touched yet. Only
/// advice: without transparent huge pages the buffer fills page by page, as any other.
void adviseHugePages(std::uint8_t* start, std::size_t bytes) {
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t intoPage = reinterpret_cast<std::uintptr_t>(start) % page;
  const std::size_t skipped = intoPage == 0 ? 0 : page - intoPage;
  if (bytes <= skipped) return;
  static_cast<void>(::madvise(start + skipped, bytes - skipped, MADV_HUGEPAGE));
}

}  // namespace

std::vector<std::uint8_t> pixelBuffer(std::size_t bytes) {
  std::vector<std::uint8_t> buffer;
  buffer.reserve(bytes);
  if (bytes >= kHugePage) adviseHugePages(buffer.data(), bytes);
  buffer.resize(bytes);
  return buffer;
}

}  // namespace zu::detail

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zu::detail {

/**
 * A buffer of `bytes` zero bytes for a picture's pixels. A big one, a photo's at full size, is backed by huge
 * pages where the system offers them: filling a fresh buffer page by page costs more than decoding into it
 * (a 46 MiB picture takes some twelve thousand page faults, and a virtual machine makes each one dear).
 */
std::vector<std::uint8_t> pixelBuffer(std::size_t bytes);

}  // namespace zu::detail

#pragma once

#include <cstdint>
#include <vector>

namespace zu {

/// A byte buffer, the counterpart of the platform's `Data`.
using Data = std::vector<std::uint8_t>;

}  // namespace zu

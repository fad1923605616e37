#pragma once

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

namespace zu::detail {

/**
 * Reads a JSON text straight into `AnyCodable` values, by the rules of `JSONSerialization::jsonObject`.
 * Containers nested deeper than `maximumDepth` are rejected, so the reader's recursion stays bounded.
 */
Result<AnyCodable> readJSON(const Data& text, int maximumDepth);

}  // namespace zu::detail

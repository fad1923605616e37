#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "KivSDK/Model/KivReport.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

// The stored form of the report list: the binary property list the platform's property-list encoder writes
// for these records, so that a store moves between the two unchanged. A top-level array holds one
// dictionary per report; keys are the stored field names in declaration order; nil optionals are left out;
// dates are plist dates, kept to the microsecond; `id` is its upper-case text; `fileType` and
// `_proofStatusInt` are integers; a URL is {"relative": text}; `_metadata` is an array alternating a key
// path (an array of texts) and its value.
namespace kiv::detail {

/// The binary property list of `reports`. Fails (code 4866) when a metadata value has no property-list form
/// (an opaque value, an unsigned integer above the signed 64-bit range) or a date lies beyond 2^31 seconds.
zu::Result<zu::Data> encodeReports(const std::vector<KivReport>& reports);

/**
 * The reports of a binary or XML property list. Fails (code 4864) when the bytes are no property list, when
 * a required field is missing, or when any field holds a value of the wrong type or an invalid value (an
 * unknown `fileType`, a malformed `id` or URL). Unknown keys are ignored; an optional field holding "$null"
 * (the platform's nil) reads as nil.
 */
zu::Result<std::vector<KivReport>> decodeReports(std::span<const std::uint8_t> bytes);

}  // namespace kiv::detail

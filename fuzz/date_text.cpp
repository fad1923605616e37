// Dates arrive as text from the service and from the user. The first byte picks a pattern, the rest is the
// text. Parsing must be strict and total, and a date that parses must write to a text that parses back to a
// date that writes the same text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ZuDate/ZuDate.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto style = static_cast<zu::DateFormatterStyle>(data[0] % 8);
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  (void)zu::dateFromLocalShortDateString(text);
  (void)zu::dateFromLocalVerboseDateString(text);
  (void)zu::timeIntervalFromString(text);
  if (const auto seconds = zu::timeIntervalFromString(text, style)) {
    if (!zu::stringFromTimeInterval(*seconds, style)) std::abort();
  }
  const auto date = zu::dateFromString(text, style);
  if (!date) return 0;
  const std::string written = zu::stringWithAPIFormat(*date, style);
  const auto again = zu::dateFromString(written, style);
  if (!again || zu::stringWithAPIFormat(*again, style) != written) std::abort();
  return 0;
}

// Every JSON text the SDK reads (service answers, error answers, journal entries) goes through one reader.
// Whatever the bytes, it must not crash, and a value it reads must write back to a text that reads to the
// same value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "AnyCodable/JSONSerialization.hpp"
#include "ZuNetworking/ZuNetworking.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const zu::Data bytes(data, data + size);
  (void)zu::ZuNetworking::_errorString(bytes);
  const auto value = zu::JSONSerialization::jsonObject(bytes);
  if (!value) return 0;
  const auto text = zu::JSONSerialization::data(*value);
  if (!text) std::abort();
  const auto again = zu::JSONSerialization::jsonObject(*text);
  if (!again) std::abort();
  const auto textAgain = zu::JSONSerialization::data(*again);
  if (!textAgain || *textAgain != *text) std::abort();
  return 0;
}

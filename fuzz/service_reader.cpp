// Service answers are hostile input: whatever bytes arrive, reading them must not crash, and whatever record
// is read must write back to JSON.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "AnyCodable/JSONSerialization.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto object = zu::JSONSerialization::jsonObject(zu::Data(data, data + size));
  if (!object || !object->dictionaryValue()) return 0;
  const auto report = kiv::KivReport::fromKivAPIResponseDict(*object->dictionaryValue());
  if (!report) return 0;
  if (!zu::ZuFileManager::isPlainPathComponent(report->name)) std::abort();
  for (const auto& file : report->files) {
    if (!file.hasPlainFileName()) std::abort();
  }
  if (!zu::JSONSerialization::data(report->dictionaryRepresentation())) std::abort();
  return 0;
}

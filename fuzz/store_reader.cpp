// The stored report list comes back from disk, where a disk fault, a sync tool or another program may have
// changed any byte. Reading must stay within the bytes and never hang, and a list that reads must write
// back and read again to the very same bytes, or a load followed by a persist would change the user's data.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "KivSDK/Store/detail/BinaryPlistReader.hpp"
#include "KivSDK/Store/detail/PersistedForm.hpp"

namespace {

using kiv::detail::BinaryPlistReader;

// Follows every reference from `ref`, as deep as `depth`, reading every value on the way.
void walk(const BinaryPlistReader& plist, BinaryPlistReader::Ref ref, int depth) {
  std::string buffer;
  (void)plist.boolean(ref), (void)plist.integer(ref), (void)plist.real(ref), (void)plist.date(ref);
  (void)plist.text(ref, buffer);
  if (depth == 0) return;
  if (const auto refs = plist.array(ref)) {
    for (std::uint64_t i = 0; i < refs->size() && i < 64; ++i) walk(plist, (*refs)[i], depth - 1);
  }
  if (const auto members = plist.dictionary(ref)) {
    for (std::uint64_t i = 0; i < members->keys.size() && i < 64; ++i) {
      walk(plist, members->keys[i], depth - 1);
      walk(plist, members->values[i], depth - 1);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const zu::Data bytes(data, data + size);
  if (const auto plist = BinaryPlistReader::open(bytes)) walk(*plist, plist->root(), 3);

  const auto reports = kiv::detail::decodeReports(bytes);
  if (!reports) return 0;
  const auto encoded = kiv::detail::encodeReports(*reports);
  if (!encoded) std::abort();
  const auto again = kiv::detail::decodeReports(*encoded);
  if (!again || again->size() != reports->size()) std::abort();
  const auto reencoded = kiv::detail::encodeReports(*again);
  if (!reencoded || *reencoded != *encoded) std::abort();
  return 0;
}

// URLs arrive in service answers (storage addresses), in journal entries and from hosts. Any text must
// either be refused or give a URL whose parts can all be read and changed, and whose text reads back as
// the same URL.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ZuFoundation/URL.hpp"

namespace {

void expectRereads(const zu::URL& url) {
  const auto again = zu::URL::fromString(url.absoluteString());
  if (!again || *again != url) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto url = zu::URL::fromString(text);
  if (!url) return 0;
  (void)url->scheme(), (void)url->host(), (void)url->port(), (void)url->path(), (void)url->query();
  (void)url->queryItems(), (void)url->lastPathComponent(), (void)url->pathExtension();
  expectRereads(*url);
  expectRereads(url->appendingPathComponent("a b/c"));
  expectRereads(url->appendingPathExtension("jpg"));
  expectRereads(url->deletingLastPathComponent());
  expectRereads(url->appendingQueryItems({{"k", "v & w"}}));
  return 0;
}

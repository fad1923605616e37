// Answers shaped to make the JSON reader blow up. This program counts the bytes it holds on the heap (it
// replaces the global allocation functions), so memory is measured, not timed.
#include <malloc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "AnyCodable/JSONSerialization.hpp"

namespace {

std::atomic<std::size_t> heldBytes{0};
std::atomic<std::size_t> peakBytes{0};

void* allocate(std::size_t size) {
  void* block = std::malloc(std::max<std::size_t>(size, 1));
  if (!block) throw std::bad_alloc();
  const std::size_t held = heldBytes += malloc_usable_size(block);
  std::size_t peak = peakBytes.load();
  while (held > peak && !peakBytes.compare_exchange_weak(peak, held)) {
  }
  return block;
}

void release(void* block) noexcept {
  if (!block) return;
  heldBytes -= malloc_usable_size(block);
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t) noexcept { release(block); }

namespace {

// `depth` arrays, each inside the one before, the innermost holding `items` zeros: 500 x 40,000 is 81 KB.
std::string nestedArrays(std::size_t depth, std::size_t items) {
  std::string text(depth, '[');
  for (std::size_t i = 0; i < items; ++i) text += i == 0 ? "0" : ",0";
  return text + std::string(depth, ']');
}

// The most bytes held at once while `text` is parsed and its value dropped.
std::size_t peakWhileParsing(const std::string& text) {
  const zu::Data data(text.begin(), text.end());
  peakBytes = heldBytes.load();
  const std::size_t before = heldBytes;
  EXPECT_TRUE(zu::JSONSerialization::jsonObject(data));
  return peakBytes - before;
}

TEST(HostileAnswer, DeepDocumentsCostNoMoreThanFlatOnesOfTheSameSize) {
  const std::string deep = nestedArrays(500, 40'000);
  ASSERT_EQ(deep.size(), 80'999u);
  const std::size_t flat = peakWhileParsing(nestedArrays(1, 40'000));
  const std::size_t nested = peakWhileParsing(deep);
  // A reader that copies each element's key path holds hundreds of MiB here; one that is linear holds
  // about what the flat document takes.
  EXPECT_LT(nested, 2 * flat) << nested << " bytes for the deep document, " << flat << " for the flat one";
  EXPECT_LT(nested, std::size_t{16} << 20);
}

}  // namespace

#include "KivSDK/Store/detail/BinaryPlistReader.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "KivSDK/Model/KivModel.hpp"
#include "ZuUserDefaults/ZuUserDefaults.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using kiv::detail::BinaryPlistReader;
using Kind = BinaryPlistReader::Kind;
using Bytes = std::vector<std::uint8_t>;

void appendBigEndian(Bytes& out, std::uint64_t value, unsigned width) {
  for (unsigned i = width; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// One object of a hand-made document: a scalar's bytes, or a container's marker and references.
struct Object {
  Bytes scalar;
  std::uint8_t containerMarker = 0;
  std::vector<std::uint64_t> refs;
};

Object bytes(Bytes scalar) { return {std::move(scalar), 0, {}}; }
Object ascii(std::string_view text) {
  Bytes out = text.size() < 15 ? Bytes{static_cast<std::uint8_t>(0x50 | text.size())}
                               : Bytes{0x5F, 0x10, static_cast<std::uint8_t>(text.size())};
  out.insert(out.end(), text.begin(), text.end());
  return bytes(out);
}
Object array(std::vector<std::uint64_t> refs) { return {{}, 0xA0, std::move(refs)}; }
// Keys first, then values, as stored.
Object dictionary(std::vector<std::uint64_t> keys, const std::vector<std::uint64_t>& values) {
  keys.insert(keys.end(), values.begin(), values.end());
  return {{}, 0xD0, std::move(keys)};
}

// A "bplist00" document of `objects` with the given widths; the first object is the root.
Bytes document(const std::vector<Object>& objects, unsigned offsetWidth = 1, unsigned refWidth = 1) {
  Bytes out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<std::uint64_t> offsets;
  for (const Object& object : objects) {
    offsets.push_back(out.size());
    if (!object.containerMarker) {
      out.insert(out.end(), object.scalar.begin(), object.scalar.end());
      continue;
    }
    const std::size_t count = object.containerMarker == 0xD0 ? object.refs.size() / 2 : object.refs.size();
    if (count < 15) {
      out.push_back(static_cast<std::uint8_t>(object.containerMarker | count));
    } else {
      out.insert(out.end(), {static_cast<std::uint8_t>(object.containerMarker | 0x0F), 0x13});
      appendBigEndian(out, count, 8);
    }
    for (const std::uint64_t ref : object.refs) appendBigEndian(out, ref, refWidth);
  }
  const std::uint64_t table = out.size();
  for (const std::uint64_t offset : offsets) appendBigEndian(out, offset, offsetWidth);
  out.insert(out.end(), 6, 0);
  out.push_back(static_cast<std::uint8_t>(offsetWidth));
  out.push_back(static_cast<std::uint8_t>(refWidth));
  appendBigEndian(out, objects.size(), 8);
  appendBigEndian(out, 0, 8);
  appendBigEndian(out, table, 8);
  return out;
}

Bytes withMarker(std::uint8_t marker, std::uint64_t value, unsigned width) {
  Bytes out{marker};
  appendBigEndian(out, value, width);
  return out;
}

// Every kind of value, with sizes our own writer never uses.
std::vector<Object> everyKind() {
  return {
      array({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}),
      bytes({0x10, 0x05}),                                         // 1: 1-byte integer
      bytes(withMarker(0x11, 0xBEEF, 2)),                          // 2: 2-byte integer
      bytes(withMarker(0x12, 0xDEADBEEF, 4)),                      // 3: 4-byte integer
      bytes(withMarker(0x13, static_cast<std::uint64_t>(-3), 8)),  // 4: 8-byte integer, signed
      bytes([] {                                                   // 5: 16-byte integer holding -2
        Bytes out = withMarker(0x14, ~std::uint64_t{0}, 8);
        appendBigEndian(out, static_cast<std::uint64_t>(-2), 8);
        return out;
      }()),
      bytes(withMarker(0x22, std::bit_cast<std::uint32_t>(1.5f), 4)),   // 6: 4-byte real
      bytes(withMarker(0x23, std::bit_cast<std::uint64_t>(-0.25), 8)),  // 7: 8-byte real
      bytes(withMarker(0x33, std::bit_cast<std::uint64_t>(6e8), 8)),    // 8: date
      ascii("plain"),                                                   // 9
      bytes({0x64, 0x00, 0xE9, 0xD8, 0x34, 0xDD, 0x1E, 0xD8, 0x00}),  // 10: "é𝄞" and an unpaired surrogate
      bytes({0x09}),                                                  // 11: true
      bytes({0x08}),                                                  // 12: false
      bytes({0x42, 0x00, 0xFF}),                                      // 13: data
      dictionary({9}, {1}),                                           // 14: {"plain": 5}
      bytes({0x00}),                                                  // 15: null
      bytes([] {                                                      // 16: 16-byte integer above 64 bits
        Bytes out = withMarker(0x14, 1, 8);
        out.insert(out.end(), 8, 0);
        return out;
      }()),
  };
}

class BinaryPlistReaderWidths : public ::testing::TestWithParam<std::tuple<unsigned, unsigned>> {};

TEST_P(BinaryPlistReaderWidths, ReadsEveryKindAtEveryWidth) {
  const auto [offsetWidth, refWidth] = GetParam();
  const Bytes stored = document(everyKind(), offsetWidth, refWidth);
  const auto plist = BinaryPlistReader::open(stored);
  ASSERT_TRUE(plist);
  const auto root = plist->array(plist->root());
  ASSERT_TRUE(root);
  ASSERT_EQ(root->size(), 16u);
  const auto at = [&](std::uint64_t i) { return (*root)[i - 1]; };
  EXPECT_EQ(plist->integer(at(1)), 5);
  EXPECT_EQ(plist->integer(at(2)), 0xBEEF);
  EXPECT_EQ(plist->integer(at(3)), std::int64_t{0xDEADBEEF});
  EXPECT_EQ(plist->integer(at(4)), -3);
  EXPECT_EQ(plist->integer(at(5)), -2);
  EXPECT_EQ(plist->real(at(6)), 1.5);
  EXPECT_EQ(plist->real(at(7)), -0.25);
  EXPECT_EQ(plist->date(at(8)), 6e8);
  EXPECT_FALSE(plist->real(at(8)));  // a date is no real, nor a real an integer
  EXPECT_FALSE(plist->integer(at(7)));
  std::string buffer;
  EXPECT_EQ(plist->text(at(9), buffer), "plain");
  EXPECT_EQ(plist->text(at(10), buffer), "é𝄞\uFFFD");
  EXPECT_EQ(plist->boolean(at(11)), true);
  EXPECT_EQ(plist->boolean(at(12)), false);
  EXPECT_EQ(plist->kind(at(13)), Kind::Data);
  const auto members = plist->dictionary(at(14));
  ASSERT_TRUE(members);
  ASSERT_EQ(members->keys.size(), 1u);
  EXPECT_EQ(plist->text(members->keys[0], buffer), "plain");
  EXPECT_EQ(plist->integer(members->values[0]), 5);
  EXPECT_EQ(plist->kind(at(15)), Kind::Other);
  EXPECT_EQ(plist->kind(at(16)), Kind::Integer);
  EXPECT_FALSE(plist->integer(at(16)));  // beyond 64 signed bits
}

INSTANTIATE_TEST_SUITE_P(OffsetAndReferenceSizes, BinaryPlistReaderWidths,
                         ::testing::Combine(::testing::Values(1u, 2u, 3u, 8u),
                                            ::testing::Values(1u, 2u, 4u, 8u)));

TEST(BinaryPlistReaderHostile, BytesAboveAsciiInAnAsciiStringReadAsReplacementCharacters) {
  // As the writer would store them, so that a list read and written back reads the same again.
  const Bytes stored = document({ascii("l\x83ns\xFF")});
  const auto plist = BinaryPlistReader::open(stored);
  ASSERT_TRUE(plist);
  std::string buffer;
  EXPECT_EQ(plist->text(plist->root(), buffer), "l\uFFFDns\uFFFD");
}

TEST(BinaryPlistReaderHostile, MalformedTrailersAreRefused) {
  const Bytes good = document({array({1}), ascii("x")});
  ASSERT_TRUE(BinaryPlistReader::open(good));
  for (std::size_t size = 0; size < good.size(); ++size) {
    const Bytes prefix(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_FALSE(BinaryPlistReader::open(prefix)) << size << " bytes";
  }
  const std::size_t trailer = good.size() - 32;
  const auto changed = [&](std::size_t at, std::uint8_t value) {
    Bytes bad = good;
    bad[at] = value;
    return bad;
  };
  EXPECT_FALSE(BinaryPlistReader::open(changed(0, 'B')));              // no magic
  EXPECT_FALSE(BinaryPlistReader::open(changed(trailer + 6, 0)));      // offset width 0
  EXPECT_FALSE(BinaryPlistReader::open(changed(trailer + 7, 9)));      // reference width 9
  EXPECT_FALSE(BinaryPlistReader::open(changed(trailer + 8, 0xFF)));   // 2^56 objects
  EXPECT_FALSE(BinaryPlistReader::open(changed(trailer + 23, 2)));     // root beyond the objects
  EXPECT_FALSE(BinaryPlistReader::open(changed(trailer + 24, 0xFF)));  // offset table beyond the end
  EXPECT_FALSE(BinaryPlistReader::open(changed(trailer + 31, 0)));     // offset table over the header
}

TEST(BinaryPlistReaderHostile, BadOffsetsReferencesAndCountsReadAsInvalid) {
  Bytes stored = document({array({1, 7}), ascii("x")});
  const std::size_t table = stored.size() - 32 - 2;
  const auto plist = BinaryPlistReader::open(stored);
  const auto root = plist->array(plist->root());
  ASSERT_TRUE(root);
  EXPECT_EQ(plist->kind((*root)[1]), Kind::Invalid);  // a reference beyond the objects

  stored[table + 1] = static_cast<std::uint8_t>(table);  // an offset into the offset table
  EXPECT_EQ(BinaryPlistReader::open(stored)->kind(1), Kind::Invalid);
  stored[table + 1] = 3;  // an offset into the header
  EXPECT_EQ(BinaryPlistReader::open(stored)->kind(1), Kind::Invalid);

  // Counts beyond the bytes that follow, and counts that are no integer.
  for (const Bytes& marker : {Bytes{0x5F, 0x13, 0x40, 0, 0, 0, 0, 0, 0, 0},
                              Bytes{0xAF, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
                              Bytes{0x6F, 0x10, 0x7F}, Bytes{0xAF, 0x23, 0}, Bytes{0xDF}, Bytes{0x14, 0}}) {
    const Bytes hostile = document({bytes(marker)});
    EXPECT_EQ(BinaryPlistReader::open(hostile)->kind(0), Kind::Invalid) << int(marker[0]);
  }
  for (const int marker : {0x01, 0x24, 0x31, 0x70, 0xB0, 0xE0, 0xF0}) {
    EXPECT_EQ(
        BinaryPlistReader::open(document({bytes({static_cast<std::uint8_t>(marker), 0, 0, 0, 0})}))->kind(0),
        Kind::Invalid)
        << int(marker);
  }
}

// ---- Hostile stores, through the report list's load.

class KivModelHostileStore : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(kiv::KivModel::loadFromStore().empty()); }  // writes the version

  // One report whose only metadata value is object 13, followed by `extra` objects.
  static Bytes reportWithValue(Object value, std::vector<Object> extra = {}) {
    std::vector<Object> objects{array({1}),
                                dictionary({2, 4, 6, 8, 10}, {3, 5, 7, 9, 11}),
                                ascii("name"),
                                ascii("R"),
                                ascii("created"),
                                bytes(withMarker(0x33, std::bit_cast<std::uint64_t>(6e8), 8)),
                                ascii("files"),
                                array({}),
                                ascii("_proofStatusInt"),
                                bytes({0x10, 0}),
                                ascii("_metadata"),
                                array({12, 13}),
                                array({14}),
                                std::move(value),
                                ascii("k")};
    objects.insert(objects.end(), extra.begin(), extra.end());
    return document(objects);
  }

  static std::size_t loadedCount(const Bytes& stored) {
    auto& defaults = zu::ZuUserDefaults::standard();
    EXPECT_TRUE(defaults.set(stored, kiv::KivModel::Const::UD::reports));
    const std::size_t count = kiv::KivModel::loadFromStore().size();
    EXPECT_EQ(defaults.data(kiv::KivModel::Const::UD::reports), stored);  // kept for the next persist
    return count;
  }

  testing_support::ScopedApplicationData appData_;
};

TEST_F(KivModelHostileStore, AValueThatHoldsItselfFailsTheLoad) {
  ASSERT_EQ(loadedCount(reportWithValue(ascii("v"))), 1u);
  EXPECT_EQ(loadedCount(reportWithValue(array({13}))), 0u);
  EXPECT_EQ(loadedCount(reportWithValue(dictionary({14}, {13}))), 0u);
}

TEST_F(KivModelHostileStore, ContainersSharedExponentiallyFailTheLoad) {
  // Object 13 is [a, a], a is [b, b], ... 60 levels down: 2^60 leaves from a few hundred bytes.
  std::vector<Object> levels;
  for (std::uint64_t level = 0; level < 60; ++level) levels.push_back(array({16 + level, 16 + level}));
  levels.push_back(ascii("leaf"));
  EXPECT_EQ(loadedCount(reportWithValue(array({15, 15}), levels)), 0u);
}

TEST_F(KivModelHostileStore, TruncatedListsLoadEmpty) {
  const Bytes good = reportWithValue(ascii("v"));
  for (const std::size_t cut : {std::size_t{1}, std::size_t{20}, good.size() / 2}) {
    EXPECT_EQ(loadedCount(Bytes(good.begin(), good.end() - static_cast<std::ptrdiff_t>(cut))), 0u) << cut;
  }
}

}  // namespace

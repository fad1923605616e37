#include "KivSDK/Model/detail/BinaryPlistWriter.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <stdexcept>

#include "ZuFoundation/detail/BinaryPlist.hpp"

namespace kiv::detail {
namespace {

namespace bplist = zu::detail::bplist;

// Containers are written with references this wide until the number of objects is known.
constexpr unsigned kProvisionalRefWidth = 4;
// The offset table's bytes for one object, in a document below 4 GiB.
constexpr std::size_t kOffsetRoom = 4;
// The most bytes a scalar other than a text takes.
constexpr std::size_t kLargestScalar = 9;
constexpr std::uint64_t kMaxObjects = 0xFFFFFFFF;
constexpr std::uint32_t kNoText = 0xFFFFFFFF;
constexpr std::size_t kFirstTextSlots = 1024;

std::uint32_t hashOf(std::span<const std::uint8_t> bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return static_cast<std::uint32_t>(std::hash<std::string_view>{}(text));
}

// How many bytes a container's marker takes with its count.
std::size_t headerLength(const std::uint8_t* marker) {
  if ((*marker & 0x0F) != 0x0F) return 1;
  return 2 + (std::size_t{1} << (marker[1] & 0x0F));
}

void writeBigEndian(std::uint8_t* at, std::uint64_t value, unsigned width) {
  for (unsigned i = 0; i < width; ++i) at[i] = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
}

}  // namespace

BinaryPlistWriter::BinaryPlistWriter() : out_(bplist::kMagic.begin(), bplist::kMagic.end()) {}

// The document grows to twice what it needs with its offset table, so that the table never moves it.
void BinaryPlistWriter::makeRoom(std::size_t bytes) {
  const std::size_t needed = out_.size() + bytes + kOffsetRoom * (offsets_.size() + 1) + bplist::kTrailerSize;
  if (needed > out_.capacity()) out_.reserve(2 * needed);
}

BinaryPlistWriter::Ref BinaryPlistWriter::begin(std::size_t largest, bool container) {
  makeRoom(largest);
  return record(out_.size(), container);
}

BinaryPlistWriter::Ref BinaryPlistWriter::record(std::size_t start, bool container) {
  if (offsets_.size() == kMaxObjects)
    throw std::length_error("A binary property list holds under 2^32 objects");
  offsets_.push_back(start);
  containers_.push_back(container);
  return offsets_.size() - 1;
}

BinaryPlistWriter::Ref BinaryPlistWriter::boolean(bool value) {
  const Ref ref = begin(1, false);
  out_.push_back(value ? bplist::kTrue : bplist::kFalse);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::integer(std::int64_t value) {
  const Ref ref = begin(kLargestScalar, false);
  bplist::appendInteger(out_, value);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::real(double value) {
  const Ref ref = begin(kLargestScalar, false);
  bplist::appendDouble(out_, bplist::kReal, value);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::date(double seconds) {
  const Ref ref = begin(kLargestScalar, false);
  bplist::appendDouble(out_, bplist::kDate, seconds);
  return ref;
}

// The stored bytes of the text `ref`, the texts stored so far ending at `textsEnd`.
std::span<const std::uint8_t> BinaryPlistWriter::storedText(std::uint32_t ref, std::size_t textsEnd) const {
  const std::size_t end = ref + 1 < offsets_.size() ? offsets_[ref + 1] : textsEnd;
  return {out_.data() + offsets_[ref], end - offsets_[ref]};
}

void BinaryPlistWriter::growTextSlots() {
  std::vector<TextSlot> slots(std::max(kFirstTextSlots, 2 * textSlots_.size()), TextSlot{kNoText, 0});
  const std::size_t mask = slots.size() - 1;
  for (const TextSlot& known : textSlots_) {
    if (known.ref == kNoText) continue;
    std::size_t slot = known.hash & mask;
    while (slots[slot].ref != kNoText) slot = (slot + 1) & mask;
    slots[slot] = known;
  }
  textSlots_ = std::move(slots);
}

// The text is written at the end of the document, and taken back when an equal one is already there (equal
// texts have equal stored bytes).
BinaryPlistWriter::Ref BinaryPlistWriter::string(std::string_view text) {
  if (2 * (textCount_ + 1) > textSlots_.size()) growTextSlots();
  makeRoom(1 + kLargestScalar + 2 * text.size());  // UTF-16 takes at most 2 bytes for each of UTF-8's
  const std::size_t start = out_.size();
  bplist::appendString(out_, text);
  const std::span<const std::uint8_t> stored(out_.data() + start, out_.size() - start);
  const std::uint32_t hash = hashOf(stored);
  const std::size_t mask = textSlots_.size() - 1;
  std::size_t slot = hash & mask;
  for (; textSlots_[slot].ref != kNoText; slot = (slot + 1) & mask) {
    const TextSlot& known = textSlots_[slot];
    if (known.hash == hash && std::ranges::equal(storedText(known.ref, start), stored)) {
      out_.resize(start);
      return known.ref;
    }
  }
  const Ref ref = record(start, false);
  textSlots_[slot] = {static_cast<std::uint32_t>(ref), hash};
  ++textCount_;
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::container(std::uint8_t marker, std::uint64_t count,
                                                    std::span<const Ref> first, std::span<const Ref> second) {
  const Ref ref = begin(1 + kLargestScalar + kProvisionalRefWidth * (first.size() + second.size()), true);
  bplist::appendMarker(out_, marker, count);
  for (const Ref element : first) bplist::appendBigEndian(out_, element, kProvisionalRefWidth);
  for (const Ref element : second) bplist::appendBigEndian(out_, element, kProvisionalRefWidth);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::array(std::span<const Ref> elements) {
  return container(bplist::kArray, elements.size(), elements, {});
}

BinaryPlistWriter::Ref BinaryPlistWriter::dictionary(std::span<const Ref> keys, std::span<const Ref> values) {
  return container(bplist::kDictionary, keys.size(), keys, values);
}

// Moves every object down over the room its containers' references no longer need.
void BinaryPlistWriter::narrowReferences(unsigned refWidth) {
  std::uint8_t* bytes = out_.data();
  std::size_t to = offsets_.empty() ? out_.size() : offsets_.front();
  for (std::size_t i = 0; i < offsets_.size(); ++i) {
    const std::size_t from = offsets_[i];
    const std::size_t end = i + 1 < offsets_.size() ? offsets_[i + 1] : out_.size();
    offsets_[i] = to;
    const std::size_t kept = containers_[i] ? headerLength(bytes + from) : end - from;
    std::memmove(bytes + to, bytes + from, kept);
    to += kept;
    for (std::size_t at = from + kept; at < end; at += kProvisionalRefWidth, to += refWidth)
      writeBigEndian(bytes + to, bplist::readBigEndian(bytes + at, kProvisionalRefWidth), refWidth);
  }
  out_.resize(to);
}

zu::Data BinaryPlistWriter::finish(Ref root) && {
  const unsigned refWidth = bplist::widthFor(offsets_.size());
  if (refWidth < kProvisionalRefWidth) narrowReferences(refWidth);
  textSlots_ = {};
  containers_ = {};
  const bplist::Trailer trailer{bplist::widthFor(out_.size()), refWidth, offsets_.size(), root, out_.size()};
  bplist::appendTable(out_, offsets_, trailer);
  return std::move(out_);
}

}  // namespace kiv::detail

#include "KivSDK/Model/detail/BinaryPlistReader.hpp"

namespace kiv::detail {

namespace bplist = zu::detail::bplist;

BinaryPlistReader::Ref BinaryPlistReader::Refs::operator[](std::uint64_t index) const {
  return bplist::readBigEndian(at_ + index * width_, width_);
}

std::optional<BinaryPlistReader> BinaryPlistReader::open(std::span<const std::uint8_t> bytes) {
  const auto trailer = bplist::readTrailer(bytes);
  if (!trailer) return std::nullopt;
  return BinaryPlistReader(bytes, *trailer);
}

std::optional<bool> BinaryPlistReader::boolean(Ref ref) const {
  const auto found = object(ref);
  if (found.kind != Kind::Boolean) return std::nullopt;
  return found.marker == bplist::kTrue;
}

std::optional<std::int64_t> BinaryPlistReader::integer(Ref ref) const { return bplist::integer(object(ref)); }

std::optional<double> BinaryPlistReader::real(Ref ref) const {
  const auto found = object(ref);
  return found.kind == Kind::Real ? std::optional(bplist::floatingPoint(found)) : std::nullopt;
}

std::optional<double> BinaryPlistReader::date(Ref ref) const {
  const auto found = object(ref);
  return found.kind == Kind::Date ? std::optional(bplist::floatingPoint(found)) : std::nullopt;
}

std::optional<std::string_view> BinaryPlistReader::text(Ref ref, std::string& buffer) const {
  const auto found = object(ref);
  if (found.kind != Kind::String) return std::nullopt;
  return bplist::text(found, buffer);
}

std::optional<BinaryPlistReader::Refs> BinaryPlistReader::array(Ref ref) const {
  const auto found = object(ref);
  if (found.kind != Kind::Array) return std::nullopt;
  return Refs(found.payload, found.count, trailer_.refWidth);
}

std::optional<BinaryPlistReader::Dictionary> BinaryPlistReader::dictionary(Ref ref) const {
  const auto found = object(ref);
  if (found.kind != Kind::Dictionary) return std::nullopt;
  return Dictionary{Refs(found.payload, found.count, trailer_.refWidth),
                    Refs(found.payload + found.count * trailer_.refWidth, found.count, trailer_.refWidth)};
}

}  // namespace kiv::detail

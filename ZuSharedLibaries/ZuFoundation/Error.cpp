#include "ZuFoundation/Error.hpp"

#include <utility>

#include "ZuFoundation/detail/Posix.hpp"

namespace zu {
namespace {

constexpr std::string_view kCouldNotComplete = "The operation couldn’t be completed.";

std::optional<std::string_view> cocoaText(long code) {
  switch (code) {
    case CocoaError::propertyListReadCorrupt:
    case CocoaError::coderReadCorrupt:
      return "The data couldn’t be read because it isn’t in the correct format.";
    case CocoaError::coderInvalidValue:
      return "The data couldn’t be written because it isn’t in the correct format.";
    default:
      return std::nullopt;
  }
}

}  // namespace

Error::Error(std::string domain, long code, UserInfo userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

Error Error::posix(int errorNumber) { return Error(std::string(posixDomain), errorNumber); }

Error Error::posix(int errorNumber, std::string description) {
  return Error(std::string(posixDomain), errorNumber,
               {{std::string(localizedDescriptionKey), std::move(description)}});
}

std::string Error::localizedDescription() const {
  if (const auto* value = userInfo_.find(localizedDescriptionKey)) {
    if (const auto* text = value->stringValue()) return *text;
  }
  if (domain_ == posixDomain) {
    return std::string(kCouldNotComplete) + " " + detail::systemErrorText(static_cast<int>(code_));
  }
  if (domain_ == cocoaDomain) {
    if (auto text = cocoaText(code_)) return std::string(*text);
  }
  return std::string(kCouldNotComplete) + " (" + domain_ + " error " + std::to_string(code_) + ".)";
}

}  // namespace zu

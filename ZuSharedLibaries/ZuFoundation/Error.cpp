#include "ZuFoundation/Error.hpp"

#include <utility>

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/internal/Posix.hpp"

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

// Shared by the errors made without user info.
const std::shared_ptr<const Error::UserInfo>& noUserInfo() {
  static const auto empty = std::make_shared<const Error::UserInfo>();
  return empty;
}

}  // namespace

Error::Error(std::string domain, long code)
    : domain_(std::move(domain)), code_(code), userInfo_(noUserInfo()) {}

Error::Error(std::string domain, long code, UserInfo userInfo)
    : domain_(std::move(domain)),
      code_(code),
      userInfo_(std::make_shared<const UserInfo>(std::move(userInfo))) {}

Error Error::posix(int errorNumber) { return Error(std::string(posixDomain), errorNumber); }

Error Error::posix(int errorNumber, std::string description) {
  return Error(std::string(posixDomain), errorNumber,
               {{std::string(localizedDescriptionKey), std::move(description)}});
}

std::string Error::localizedDescription() const {
  if (const auto* value = userInfo_->find(localizedDescriptionKey)) {
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

bool operator==(const Error& lhs, const Error& rhs) {
  return lhs.domain_ == rhs.domain_ && lhs.code_ == rhs.code_ && *lhs.userInfo_ == *rhs.userInfo_;
}

}  // namespace zu

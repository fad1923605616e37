#include "ZuFoundation/Error.hpp"

#include <cstring>
#include <utility>

#include "ZuFoundation/detail/SystemErrorText.hpp"

namespace zu {
namespace {

constexpr std::string_view kCouldNotComplete = "The operation couldn’t be completed.";

std::optional<std::string_view> cocoaText(long code) {
  switch (code) {
    case 3840:  // property list / JSON read
    case 4864:  // decoding: data corrupted
      return "The data couldn’t be read because it isn’t in the correct format.";
    case 4866:  // encoding: invalid value
      return "The data couldn’t be written because it isn’t in the correct format.";
    default:
      return std::nullopt;
  }
}

}  // namespace

std::string detail::systemErrorText(int errorNumber) {
  char buffer[256] = {};
  // The GNU strerror_r answers either its own static text or the buffer.
  return ::strerror_r(errorNumber, buffer, sizeof buffer);
}

Error::Error(std::string domain, long code, UserInfo userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

Error Error::posix(int errorNumber) { return Error(std::string(posixDomain), errorNumber); }

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

#include "ZuNetworking/ZuError.hpp"

#include <mutex>
#include <utility>

namespace zu {
namespace {

struct Domain {
  std::mutex mutex;
  std::string name = "com.zumbrel.networking";
};

Domain& domain() {
  static Domain instance;
  return instance;
}

}  // namespace

ZuError ZuError::invalidResponseData(std::optional<std::string> description) {
  return {Kind::invalidResponseData, std::move(description)};
}

ZuError ZuError::unsuccesfullHTTPResponseCode(int statusCode, std::optional<std::string> description) {
  return {Kind::unsuccesfullHTTPResponseCode, std::move(description), statusCode};
}

ZuError ZuError::invalidPayload(std::optional<std::string> description) {
  return {Kind::invalidPayload, std::move(description)};
}

ZuError ZuError::missingRequestData(std::optional<std::string> description) {
  return {Kind::missingRequestData, std::move(description)};
}

ZuError ZuError::emptyResponseData(std::optional<std::string> description) {
  return {Kind::emptyResponseData, std::move(description)};
}

std::string ZuError::errorDomain() {
  std::lock_guard lock(domain().mutex);
  return domain().name;
}

void ZuError::setErrorDomain(std::string name) {
  std::lock_guard lock(domain().mutex);
  domain().name = std::move(name);
}

Error::UserInfo ZuError::errorUserInfo() const {
  Error::UserInfo info;
  if (statusCode_) info.set(std::string(statusCodeKey), *statusCode_);
  if (description_) {
    info.set(std::string(Error::localizedDescriptionKey), *description_);
  } else if (kind_ == Kind::emptyResponseData) {
    info.set(std::string(Error::localizedDescriptionKey), emptyResponseDataText);
  }
  return info;
}

Error ZuError::toError() const { return Error(errorDomain(), errorCode(), errorUserInfo()); }

std::optional<ZuError> Error::zuError() const {
  if (domain_ != ZuError::errorDomain() || code_ < 1000 || code_ > 1004) return std::nullopt;
  const auto kind = static_cast<ZuError::Kind>(code_);
  std::optional<std::string> description;
  if (const auto* value = userInfo().find(localizedDescriptionKey); value && value->stringValue()) {
    description = *value->stringValue();
  }
  // The default text of an empty answer is filled in by errorUserInfo(), not given by the thrower.
  if (kind == ZuError::Kind::emptyResponseData && description == ZuError::emptyResponseDataText) {
    description.reset();
  }
  std::optional<int> statusCode;
  if (kind == ZuError::Kind::unsuccesfullHTTPResponseCode) {
    const auto* value = userInfo().find(ZuError::statusCodeKey);
    statusCode = static_cast<int>(value && value->intValue() ? *value->intValue() : 0);
  }
  return ZuError(kind, std::move(description), statusCode);
}

}  // namespace zu

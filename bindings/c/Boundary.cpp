#include "detail/Boundary.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "KivSDK/API/KivCertification.hpp"
#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "KivSDK/Provenance/detail/CanonicalJSON.hpp"
#include "ZuNetworking/ZuError.hpp"

namespace kiv::detail::capi {
namespace {

kiv_status statusOfDomain(std::string_view domain) {
  if (domain == zu::Error::posixDomain) return KIV_ERROR_FILE;
  if (domain == zu::Error::urlDomain) return KIV_ERROR_NETWORK;
  if (domain == zu::Error::cocoaDomain) return KIV_ERROR_DATA;
  if (domain == KivCertification::errorDomain) return KIV_ERROR_CERTIFICATION;
  if (domain == ProvenanceError::domain) return KIV_ERROR_PROVENANCE;
  if (domain == zu::ZuError::errorDomain()) return KIV_ERROR_SERVICE;
  return KIV_ERROR_INTERNAL;
}

// The domain of errors found at the boundary itself: argument errors are EINVAL, as the SDK's own are.
std::unique_ptr<CError> argumentError(const std::string& message) {
  return std::make_unique<CError>(KIV_ERROR_ARGUMENT, message, std::string(zu::Error::posixDomain), EINVAL);
}

// Failures that are no error value of the SDK: out of memory, a broken invariant.
std::unique_ptr<CError> internalError(const std::string& message) {
  return std::make_unique<CError>(KIV_ERROR_INTERNAL, message, "KivSDKErrorDomain", 0);
}

// The calling thread's last error. Replaced whole on each failure, so a message handed out earlier stays
// valid until then.
thread_local std::unique_ptr<CError> lastError;

}  // namespace

CError::CError(kiv_status status, std::string message, std::string domain, long code)
    : message_(std::move(message)), domain_(std::move(domain)), view_{status, nullptr, nullptr, code} {
  view_.message = message_.c_str();
  view_.domain = domain_.c_str();
}

CError::CError(const zu::Error& error)
    : CError(statusOfDomain(error.domain()), error.localizedDescription(), error.domain(), error.code()) {}

std::unique_ptr<CError> currentError() {
  try {
    throw;
  } catch (const ArgumentError& error) {
    return argumentError(error.what());
  } catch (const zu::Error& error) {
    return std::make_unique<CError>(error);
  } catch (const std::bad_alloc&) {
    return internalError("out of memory");
  } catch (const std::exception& error) {
    return internalError(error.what());
  } catch (...) {
    return internalError("unknown failure");
  }
}

namespace {
kiv_status keep(std::unique_ptr<CError> error) noexcept {
  const kiv_status status = error->status();
  lastError = std::move(error);
  return status;
}
}  // namespace

kiv_status fail(const zu::Error& error) {
  try {
    return keep(std::make_unique<CError>(error));
  } catch (...) {
    return KIV_ERROR_INTERNAL;  // out of memory while keeping the error: the status still says what happened
  }
}

kiv_status failWithCurrentError() {
  try {
    return keep(currentError());
  } catch (...) {
    return KIV_ERROR_INTERNAL;
  }
}

std::string utf8(const char* text, const char* what) {
  if (text == nullptr) throw ArgumentError(std::string(what) + " is NULL");
  std::string value(text);
  if (!isUTF8(value)) throw ArgumentError(std::string(what) + " is not valid UTF-8");
  return value;
}

std::optional<std::string> optionalUtf8(const char* text, const char* what) {
  if (text == nullptr) return std::nullopt;
  return utf8(text, what);
}

char* newString(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));  // NOLINT: freed by kiv_string_free
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

void give(char** out, const std::optional<std::string>& value, const char* what) {
  deref(out, what) = value ? newString(*value) : nullptr;
}

double unixTime(zu::Date date) { return date.timeIntervalSince1970(); }

zu::Date dateFromUnixTime(double seconds, const char* what) {
  if (!std::isfinite(seconds)) throw ArgumentError(std::string(what) + " is not a finite number of seconds");
  return zu::Date::fromTimeIntervalSince1970(seconds);
}

}  // namespace kiv::detail::capi

extern "C" {

const kiv_error* kiv_last_error(void) {
  const auto& error = kiv::detail::capi::lastError;
  return error ? error->get() : nullptr;
}

void kiv_string_free(char* text) { std::free(text); }  // NOLINT: allocated with malloc by newString

}  // extern "C"

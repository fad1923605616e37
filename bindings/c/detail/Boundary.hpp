#pragma once

// What every function of the C interface shares: the handles' contents, the checks of the arguments that
// come in, the calling thread's last error, and the guard that keeps C++ exceptions from crossing into C.
#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "KivSDK/Model/KivFile.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "KivSDK/Provenance/ProvenanceVerifier.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "kivsdk.h"

struct kiv_file {
  kiv::KivFile value;
};
struct kiv_report {
  kiv::KivReport value;
};
struct kiv_report_list {
  std::vector<kiv::KivReport> value;
};
struct kiv_verifier {
  kiv::ProvenanceVerifier value;
};
struct kiv_verification {
  kiv::ProvenanceVerification value;
};

namespace kiv::detail::capi {

/// An argument the C caller got wrong; the guard turns it into KIV_ERROR_ARGUMENT with its text.
class ArgumentError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// An error as C sees it: the strings its `kiv_error` points into live as long as this value.
class CError {
 public:
  CError(kiv_status status, std::string message, std::string domain, long code);
  explicit CError(const zu::Error& error);
  CError(const CError&) = delete;
  CError& operator=(const CError&) = delete;

  const kiv_error* get() const { return &view_; }
  kiv_status status() const { return view_.status; }

 private:
  std::string message_;
  std::string domain_;
  kiv_error view_;
};

/// The error of the exception being handled, for a `catch` block.
std::unique_ptr<CError> currentError();

/// Keeps `error` as the calling thread's last error and answers its status.
kiv_status fail(const zu::Error& error);
kiv_status failWithCurrentError();

/// The handle's pointer, checked: a NULL handle is an argument error naming `what`.
template <class Handle>
Handle& deref(Handle* handle, const char* what) {
  if (handle == nullptr) throw ArgumentError(std::string(what) + " is NULL");
  return *handle;
}

inline const char* nameOf(const kiv_file*) { return "file"; }
inline const char* nameOf(const kiv_report*) { return "report"; }
inline const char* nameOf(const kiv_report_list*) { return "list"; }
inline const char* nameOf(const kiv_verifier*) { return "verifier"; }
inline const char* nameOf(const kiv_verification*) { return "verification"; }

/// The record a handle holds, checked: a NULL handle is an argument error naming the handle's kind.
template <class Handle>
auto& valueOf(Handle* handle) {
  return deref(handle, nameOf(handle)).value;
}

/// The text at `text` as a string: NULL or text that is not UTF-8 is an argument error naming `what`.
std::string utf8(const char* text, const char* what);
/// `utf8`, where NULL means nothing.
std::optional<std::string> optionalUtf8(const char* text, const char* what);

/// A copy of `text` for the C caller, to be freed with `kiv_string_free`.
char* newString(const std::string& text);
/// Stores `value` (or NULL for nothing) in the caller's `*out`.
void give(char** out, const std::optional<std::string>& value, const char* what);

/// The value of `result`, or the error it holds as a `zu::Error` exception for the guard.
template <class T>
T take(zu::Result<T> result) {
  if (!result) throw result.error();
  return std::move(*result);
}
inline void take(zu::Result<void> result) {
  if (!result) throw result.error();
}

/// Seconds since 1970 from a date, and back (non-finite seconds are an argument error).
double unixTime(zu::Date date);
zu::Date dateFromUnixTime(double seconds, const char* what);

/**
 * Runs `body` and answers its status: KIV_OK, or the failure it threw (an `ArgumentError`, a `zu::Error`,
 * anything else), kept as the thread's last error. Nothing escapes.
 */
template <class Body>
kiv_status guarded(Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
    return KIV_OK;
  } catch (...) {
    return failWithCurrentError();
  }
}

/// Builds a new handle of type `Handle` holding `value` in the caller's `*out`.
template <class Handle, class Value>
void giveHandle(Handle** out, Value&& value, const char* what) {
  Handle*& slot = deref(out, what);  // checked first: a handle made for no place would leak
  slot = new Handle{std::forward<Value>(value)};
}

}  // namespace kiv::detail::capi

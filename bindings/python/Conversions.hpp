#pragma once

// What every part of the kivsdk module shares: how text, dates, errors and JSON values cross between Python
// and the SDK, and how SDK threads hold and call Python callables. Include it before any other pybind11
// header: its caster for text must be the only one the module sees.
#include <pybind11/cast.h>

#include <cstddef>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "AnyCodable/AnyCodable.hpp"
#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Date.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"

namespace pybind11::detail {

/**
 * Text crosses as `str` only, in UTF-8. Bytes and None are refused as arguments of the wrong type, and a str
 * holding a lone surrogate raises UnicodeEncodeError instead of reaching the SDK as bytes that are not
 * UTF-8. Text from the SDK that is not UTF-8 (a file name read from disk) arrives with U+FFFD in place of
 * its bad bytes rather than failing.
 */
template <>
struct type_caster<std::string> {
  PYBIND11_TYPE_CASTER(std::string, const_name("str"));

  bool load(handle source, bool /*convert*/) {
    if (!source || !PyUnicode_Check(source.ptr())) return false;
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(source.ptr(), &size);
    if (!text) throw error_already_set();
    value.assign(text, static_cast<std::size_t>(size));
    return true;
  }

  static handle cast(const std::string& text, return_value_policy /*policy*/, handle /*parent*/) {
    PyObject* decoded = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
    if (!decoded) throw error_already_set();
    return decoded;
  }
};

/**
 * Dates are aware `datetime.datetime`s in UTC. A date argument may also be a number of seconds since 1970
 * (as `time.time()` gives); a naive datetime is local time, as Python's own `timestamp()` reads it. Dates
 * outside the years 1 to 9999 raise ValueError: records order by their dates in whole seconds, which only
 * finite dates have.
 */
template <>
struct type_caster<zu::Date> {
  PYBIND11_TYPE_CASTER(zu::Date, const_name("datetime.datetime"));

  bool load(handle source, bool convert);
  static handle cast(zu::Date date, return_value_policy policy, handle parent);
};

}  // namespace pybind11::detail

#include <pybind11/pybind11.h>

namespace kivpy {

namespace py = pybind11;

/// An error of the SDK on its way to Python, where it is raised as `kivsdk.KivError`.
class SdkError : public std::exception {
 public:
  explicit SdkError(zu::Error error);
  const zu::Error& error() const { return error_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  zu::Error error_;
  std::string message_;
};

/// Makes `kivsdk.KivError` in `module` and has every `SdkError` raised as one.
void bindErrors(py::module_& module);
/// A `kivsdk.KivError` instance for `error`: its message, domain and code.
py::object errorObject(const zu::Error& error);

/// The value of `result`, or its error raised.
template <class Value>
Value valueOrRaise(zu::Result<Value> result) {
  if (!result) throw SdkError(result.error());
  if constexpr (!std::is_void_v<Value>) return std::move(*result);
}

/// A JSON value of the SDK as plain Python values (dict, list, str, int, float, bool, None).
py::object toPython(const zu::AnyCodable& value);
/// Plain Python values as a JSON value of the SDK; ValueError when they have no JSON form.
zu::AnyCodable fromPython(const py::handle& value);
/// A Python dict as the SDK's dictionary: TypeError for anything else, ValueError without a JSON form.
zu::AnyCodable::Dictionary dictionaryFromPython(const py::handle& value);

/// A Python object that SDK threads may hold, copy and drop: its last reference goes under the GIL.
class HeldObject {
 public:
  /// Wraps `object`; the caller holds the GIL.
  explicit HeldObject(py::object object);
  const py::object& get() const { return *object_; }

 private:
  std::shared_ptr<py::object> object_;
};

/// `object` when it is None or callable, else TypeError naming `what`.
py::object callableOrNone(py::object object, const char* what);

/**
 * Runs `body`, which calls into Python, under the GIL, from any thread. What it raises goes to
 * `sys.unraisablehook` (with `where`): an SDK thread has no caller to raise it to, and the operation goes on.
 */
template <class Body>
void reportingFailures(const char* where, const Body& body) {
  py::gil_scoped_acquire gil;
  try {
    body();
  } catch (py::error_already_set& error) {
    error.discard_as_unraisable(where);
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
    py::error_already_set().discard_as_unraisable(where);
  }
}

/// An optional value as Python sees it: the value, or None.
template <class Value>
py::object optionalToPython(const std::optional<Value>& value) {
  return value ? py::cast(*value) : py::none();
}
inline py::object optionalToPython(bool value) { return py::bool_(value); }
/// Bytes arrive as `bytes`, not as a list of numbers.
inline py::object optionalToPython(const std::optional<zu::Data>& bytes) {
  if (!bytes) return py::none();
  return py::bytes(reinterpret_cast<const char*>(bytes->data()), bytes->size());
}

/**
 * Runs an SDK operation that ends in one completion `(value, error)`. `start` begins it with that completion.
 *
 * Without `callback` the call blocks, the GIL released, until the completion comes, and answers its value
 * or raises its error. With one, it returns at once and `callback(value, error)` runs later on the SDK's
 * thread (or before the return, when the operation fails at once), `error` a `KivError` or None.
 *
 * `start` runs under the GIL: the records it reads belong to Python objects, which other Python threads may
 * change. It only sets the operation going, so it holds the GIL for no time.
 */
template <class Start>
py::object complete(const Start& start, const py::object& callback) {
  if (callback.is_none()) {
    auto answered = std::make_shared<std::promise<py::object>>();
    std::future<py::object> answer = answered->get_future();
    start([answered](auto value, std::optional<zu::Error> error) {
      if (error) return answered->set_exception(std::make_exception_ptr(SdkError(*error)));
      py::gil_scoped_acquire gil;
      try {
        answered->set_value(optionalToPython(value));
      } catch (...) {
        answered->set_exception(std::current_exception());
      }
    });
    {
      py::gil_scoped_release release;
      answer.wait();
    }
    return answer.get();
  }
  HeldObject function(callableOrNone(callback, "callback"));
  start([function](auto value, std::optional<zu::Error> error) {
    reportingFailures("kivsdk completion", [&] {
      function.get()(optionalToPython(value), error ? errorObject(*error) : py::none());
    });
  });
  return py::none();
}

}  // namespace kivpy

#include "Conversions.hpp"

#include <cmath>

#include "AnyCodable/JSONSerialization.hpp"

namespace pybind11::detail {
namespace {

// The seconds since 1970 of datetime.datetime's first and last instants (years 1 and 9999, UTC).
constexpr double kFirstDate = -62135596800.0;
constexpr double kLastDate = 253402300800.0;

double secondsSince1970(handle source) {
  const module_ datetime = module_::import("datetime");
  if (isinstance(source, datetime.attr("datetime"))) return source.attr("timestamp")().cast<double>();
  if (PyBool_Check(source.ptr()) || !(PyFloat_Check(source.ptr()) || PyLong_Check(source.ptr()))) {
    throw type_error("a date is a datetime.datetime or seconds since 1970, not " +
                     std::string(str(type::handle_of(source).attr("__name__"))));
  }
  return source.cast<double>();
}

}  // namespace

bool type_caster<zu::Date>::load(handle source, bool /*convert*/) {
  if (!source || source.is_none()) return false;
  const double seconds = secondsSince1970(source);
  if (!std::isfinite(seconds) || seconds < kFirstDate || seconds >= kLastDate) {
    throw value_error("a date must lie in the years 1 to 9999");
  }
  value = zu::Date::fromTimeIntervalSince1970(seconds);
  return true;
}

handle type_caster<zu::Date>::cast(zu::Date date, return_value_policy /*policy*/, handle /*parent*/) {
  const module_ datetime = module_::import("datetime");
  return datetime.attr("datetime")
      .attr("fromtimestamp")(date.timeIntervalSince1970(), datetime.attr("timezone").attr("utc"))
      .release();
}

}  // namespace pybind11::detail

namespace kivpy {
namespace {

// The class of kivsdk.KivError, made once with the module and kept for its life.
PyObject* kivErrorClass = nullptr;

std::string jsonText(const py::handle& value) {
  try {
    return py::module_::import("json").attr("dumps")(value, py::arg("allow_nan") = false).cast<std::string>();
  } catch (py::error_already_set& error) {
    if (!error.matches(PyExc_TypeError) && !error.matches(PyExc_ValueError)) throw;
    throw py::value_error(std::string("the value has no JSON form: ") + error.what());
  }
}

}  // namespace

SdkError::SdkError(zu::Error error) : error_(std::move(error)), message_(error_.localizedDescription()) {}

void bindErrors(py::module_& module) {
  static py::exception<SdkError> kivError(module, "KivError");
  kivError.doc() =
      "An error of the SDK. str(error) and error.message are its text for people; error.domain and "
      "error.code say what it is (\"NSPOSIXErrorDomain\" with an errno, \"NSURLErrorDomain\" with a "
      "transport code, the networking layer's or the certification flow's own domain).";
  // Each raised error sets its own; the class's serve an error that Python code makes itself.
  kivError.attr("message") = "";
  kivError.attr("domain") = "";
  kivError.attr("code") = 0;
  kivErrorClass = kivError.ptr();
  // pybind11's translators take the pointer by value.
  py::register_exception_translator(
      [](std::exception_ptr raised) {  // NOLINT(performance-unnecessary-value-param)
        try {
          if (raised) std::rethrow_exception(raised);
        } catch (const SdkError& failure) {
          PyErr_SetObject(kivErrorClass, errorObject(failure.error()).ptr());
        }
      });
}

py::object errorObject(const zu::Error& error) {
  py::object instance = py::reinterpret_borrow<py::object>(kivErrorClass)(error.localizedDescription());
  instance.attr("message") = error.localizedDescription();
  instance.attr("domain") = error.domain();
  instance.attr("code") = error.code();
  return instance;
}

py::object toPython(const zu::AnyCodable& value) {
  const zu::Data text = valueOrRaise(zu::JSONSerialization::data(value));
  return py::module_::import("json").attr("loads")(
      py::bytes(reinterpret_cast<const char*>(text.data()), text.size()));
}

zu::AnyCodable fromPython(const py::handle& value) {
  const std::string text = jsonText(value);
  auto parsed = zu::JSONSerialization::jsonObject(zu::Data(text.begin(), text.end()));
  if (!parsed) throw py::value_error("the value has no JSON form: " + parsed.error().localizedDescription());
  return std::move(*parsed);
}

zu::AnyCodable::Dictionary dictionaryFromPython(const py::handle& value) {
  if (!py::isinstance<py::dict>(value)) throw py::type_error("expected a dict");
  return *fromPython(value).dictionaryValue();  // a dict's JSON form is an object
}

HeldObject::HeldObject(py::object object)
    : object_(new py::object(std::move(object)), [](py::object* held) {
        py::gil_scoped_acquire gil;
        delete held;
      }) {}

py::object callableOrNone(py::object object, const char* what) {
  if (!object.is_none() && !PyCallable_Check(object.ptr())) {
    throw py::type_error(std::string(what) + " must be callable or None");
  }
  return object;
}

}  // namespace kivpy

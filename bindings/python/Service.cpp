// Set-up, the certification service's operations and the certification flow. Each operation blocks (the
// GIL released) unless given a callback; see `complete`.
#include "Conversions.hpp"
// The module's own casters come first; then pybind11's containers.
#include <pybind11/stl.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <future>
#include <memory>
#include <string>

#include "Bindings.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/API/KivCertification.hpp"

namespace kivpy {
namespace {

using kiv::KivAPI;
using kiv::KivCertification;
using kiv::KivFile;
using kiv::KivReport;

constexpr const char* kProgressContext = "kivsdk progress callback";

/// The SDK's progress handler for a Python `progress(done, expected)`; none for None.
KivAPI::TransferProgress transferProgress(const py::object& progress) {
  if (callableOrNone(progress, "progress").is_none()) return {};
  return [function = HeldObject(progress)](std::int64_t done, std::int64_t expected) {
    reportingFailures(kProgressContext, [&] { function.get()(done, expected); });
  };
}

void useService(const std::string& baseURL, const std::optional<std::string>& caFile) {
  KivAPI::set_ZuNetworkingType(valueOrRaise(KivAPI::redirectedNetworkingType(baseURL, caFile)));
}

void bindSetup(py::module_& module) {
  module.def("setup", &KivAPI::setup, py::arg("token"),
             "Sets the application token that the service's requests carry. Call it once, at start-up.");
  module.def("app_token", &KivAPI::_appToken, "The stored authentication text, None before `setup`.");
  module.def("use_service", &useService, py::arg("base_url"), py::arg("ca_file") = py::none(),
             "Talks to the certification service at `base_url` (https) instead of the one the SDK was "
             "built for, trusting the CA certificates in `ca_file` (PEM) besides the system's. Call it "
             "before the first request.");
}

void bindReportOperations(py::module_& module) {
  module.def(
      "send",
      [](const KivReport& report, const std::string& language, const py::object& callback) {
        return complete([&](auto done) { KivAPI::send(report, language, std::move(done)); }, callback);
      },
      py::arg("report"), py::arg("language") = "en", py::kw_only(), py::arg("callback") = py::none(),
      "Creates the report on the service, or replaces it once it has a slug; answers the service's copy.");
  bindReportOperation(module, "update", &KivAPI::update,
                      "Fetches the report's proof status; answers a copy with it. Needs a slug.");
  bindReportOperation(module, "force_status_update", &KivAPI::forceStatusUpdate,
                      "Has the service check the report's content again; answers a copy with its status. "
                      "Needs a slug.");
  module.def(
      "generate_pdf",
      [](const KivReport& report, const std::string& language, const py::object& callback) {
        return complete([&](auto done) { KivAPI::generatePDF(report, language, std::move(done)); }, callback);
      },
      py::arg("report"), py::arg("language") = "en", py::kw_only(), py::arg("callback") = py::none(),
      "Downloads the report's certificate to `report.pdf_url`. Needs a slug.");
  module.def(
      "update_newsletters",
      [](const kiv::KivUserProperties& properties, const std::string& language, const py::object& callback) {
        return complete([&](auto done) { KivAPI::updateNewsletters(properties, language, std::move(done)); },
                        callback);
      },
      py::arg("properties"), py::arg("language") = "en", py::kw_only(), py::arg("callback") = py::none(),
      "Registers the user's e-mail, phone and newsletters; answers the service's \"success\".");
}

void bindTransfers(py::module_& module) {
  module.def(
      "upload_content",
      [](const KivFile& file, const KivReport& report, const py::object& progress,
         const py::object& callback) {
        auto reporting = transferProgress(progress);
        return complete(
            [&](auto done) { KivAPI::uploadContent(file, report, std::move(done), std::move(reporting)); },
            callback);
      },
      py::arg("file"), py::arg("report"), py::kw_only(), py::arg("progress") = py::none(),
      py::arg("callback") = py::none(),
      "Uploads the file's content to the service; answers a copy with its `remote_url`. `progress(done, "
      "expected)` runs on an SDK thread as bytes move.");
  module.def(
      "download_content",
      [](const KivFile& file, const py::object& progress, const py::object& callback) {
        auto reporting = transferProgress(progress);
        return complete(
            [&](auto done) { KivAPI::downloadContent(file, std::move(done), std::move(reporting)); },
            callback);
      },
      py::arg("file"), py::kw_only(), py::arg("progress") = py::none(), py::arg("callback") = py::none(),
      "Downloads the file's content from its `remote_url` to its `file_url`.");
}

KivCertification::Options certificationOptions(const std::string& language, double timeout,
                                               const py::object& progress) {
  if (!std::isfinite(timeout) || timeout < 0) {
    throw py::value_error("confirmation_timeout must be a number of seconds, 0 or more");
  }
  KivCertification::Options options;
  options.language = language;
  options.confirmationTimeout = std::chrono::seconds(static_cast<std::int64_t>(std::ceil(timeout)));
  if (!callableOrNone(progress, "progress").is_none()) {
    options.progress = [function = HeldObject(progress)](const KivFile& file, std::int64_t done,
                                                         std::int64_t expected) {
      reportingFailures(kProgressContext, [&] { function.get()(file, done, expected); });
    };
  }
  return options;
}

py::object certify(const KivReport& report, const std::string& language, double timeout,
                   const py::object& progress, const py::object& callback) {
  KivCertification::Options options = certificationOptions(language, timeout, progress);
  if (callback.is_none()) {
    auto finished = std::make_shared<std::promise<KivCertification::Outcome>>();
    std::future<KivCertification::Outcome> outcome = finished->get_future();
    // The flow copies the report before it returns, under the GIL; only the wait is without it.
    KivCertification::certify(report, std::move(options), [finished](KivCertification::Outcome done) {
      finished->set_value(std::move(done));
    });
    {
      py::gil_scoped_release release;
      outcome.wait();
    }
    return py::cast(outcome.get());
  }
  HeldObject function(callableOrNone(callback, "callback"));
  KivCertification::certify(report, std::move(options), [function](KivCertification::Outcome done) {
    reportingFailures("kivsdk completion", [&] { function.get()(std::move(done)); });
  });
  return py::none();
}

void bindCertification(py::module_& module) {
  py::enum_<KivCertification::Step>(module, "CertificationStep", "The steps of `certify`, in order.")
      .value("send", KivCertification::Step::send)
      .value("upload", KivCertification::Step::upload)
      .value("confirmation", KivCertification::Step::confirmation);
  module.attr("CERTIFICATION_ERROR_DOMAIN") = std::string(KivCertification::errorDomain);
  module.attr("CONTENT_REJECTED") = static_cast<long>(KivCertification::contentRejected);
  module.attr("NOT_CONFIRMED_IN_TIME") = static_cast<long>(KivCertification::notConfirmedInTime);
  py::class_<KivCertification::Outcome>(module, "CertificationOutcome", "What `certify` did.")
      .def_readonly("report", &KivCertification::Outcome::report,
                    "The report as far as the flow took it: keep it whatever happened.")
      .def_readonly("failed_step", &KivCertification::Outcome::failedStep,
                    "The step that failed; None when the report was confirmed.")
      .def_property_readonly(
          "error",
          [](const KivCertification::Outcome& self) {
            return self.error ? errorObject(*self.error) : py::none();
          },
          "Why it failed, a KivError; None when the report was confirmed.")
      .def_property_readonly("confirmed", [](const KivCertification::Outcome& self) { return !self.error; });
  module.def(
      "certify", &certify, py::arg("report"), py::arg("language") = "en", py::kw_only(),
      py::arg("confirmation_timeout") = 60.0, py::arg("progress") = py::none(),
      py::arg("callback") = py::none(),
      "The whole flow in one call: digests, send, upload of every file not yet on the service "
      "(`progress(file, done, expected)` on SDK threads), then the service's check until \"confirmed\", "
      "\"failed\" or the time-out. Answers a CertificationOutcome, or passes it to `callback` on a "
      "thread of the flow's own.");
}

}  // namespace

void bindService(py::module_& module) {
  bindSetup(module);
  bindReportOperations(module);
  bindTransfers(module);
  bindCertification(module);
}

}  // namespace kivpy

#pragma once

#include "Conversions.hpp"
#include "KivSDK/Model/KivReport.hpp"

// The parts of the kivsdk module, each adding its names to it.
namespace kivpy {

/// KivFile, KivReport, MailList, UserProperties; the report store, media import and digests.
void bindRecords(py::module_& module);
/// Set-up and the certification service's operations, the certification flow.
void bindService(py::module_& module);
/// Device statements, the service's provenance routes and offline verification.
void bindProvenance(py::module_& module);

/// Binds `name(report, *, callback=None)` over the service operation `operation(report, completion)`, in
/// its blocking and callback forms (see `complete`).
template <class Completion>
void bindReportOperation(py::module_& module, const char* name,
                         void (*operation)(const kiv::KivReport&, Completion), const char* doc) {
  module.def(
      name,
      [operation](const kiv::KivReport& report, const py::object& callback) {
        return complete([&](auto done) { operation(report, std::move(done)); }, callback);
      },
      py::arg("report"), py::kw_only(), py::arg("callback") = py::none(), doc);
}

}  // namespace kivpy

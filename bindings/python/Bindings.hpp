#pragma once

#include "Conversions.hpp"

// The parts of the kivsdk module, each adding its names to it.
namespace kivpy {

/// KivFile, KivReport, MailList, UserProperties; the report store, media import and digests.
void bindRecords(py::module_& module);
/// Set-up and the certification service's operations, the certification flow.
void bindService(py::module_& module);
/// Device statements, the service's provenance routes and offline verification.
void bindProvenance(py::module_& module);

}  // namespace kivpy

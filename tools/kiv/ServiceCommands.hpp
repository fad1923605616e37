#pragma once

#include <string>

#include "KivSDK/Model/KivReport.hpp"
#include "ReportStore.hpp"

namespace kivcli {

/// The report `selector` names, which the service must know already (it has a slug); fails otherwise.
kiv::KivReport sentReport(const ReportStore& store, const std::string& selector);

}  // namespace kivcli

#pragma once

#include <string>
#include <vector>

#include "AnyCodable/AnyCodable.hpp"
#include "Context.hpp"
#include "KivSDK/Model/KivReport.hpp"

namespace kivcli {

/// Signs device statements about `files` of `report` and keeps them with the report; answers the device key's
/// id, empty for a report without id (which keeps no statements). Fails (nothing kept) when one cannot be
/// signed.
std::string signStatements(const kiv::KivReport& report, const std::vector<kiv::KivFile>& files);

/// Sends the device statements of `report`, which the service knows already, when it has any: answers the
/// statements the service holds as a JSON array (empty when the report has none to send).
zu::AnyCodable::Array sendStatements(const Context& context, const kiv::KivReport& report);

}  // namespace kivcli

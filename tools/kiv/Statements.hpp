#pragma once

#include "AnyCodable/AnyCodable.hpp"
#include "Context.hpp"
#include "KivSDK/Model/KivReport.hpp"

namespace kivcli {

/// Sends the device statements of `report`, which the service knows already, when it has any: answers the
/// statements the service holds as a JSON array (empty when the report has none to send).
zu::AnyCodable::Array sendStatements(const Context& context, const kiv::KivReport& report);

}  // namespace kivcli

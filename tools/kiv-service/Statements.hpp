#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Model.hpp"

namespace kiv::service {

/// The registered device key with this id for the requesting application token, if there is one.
using KeyLookup = std::function<std::optional<DeviceKey>(const std::string& keyId)>;

/// A device key from its base64url text, with its key id. Throws BadRequest (400) when the text is not the
/// 32 bytes of an Ed25519 public key.
DeviceKey deviceKeyFrom(const std::string& publicKey);

/**
 * Reads file statements and checks what they prove on their own: the JWS form and payload fields (400), a
 * key registered for the token (422) and the Ed25519 signature under it (422). Each refusal names the
 * statement by its place, "statements[1]: ...". Throws BadRequest.
 */
std::vector<StatementRecord> verifyStatements(const std::vector<std::string>& texts,
                                              const KeyLookup& registeredKey);

/**
 * Refuses statements that do not fit `report`: once its manifest is issued (409), for a file it does not
 * have (404), or naming another digest than the report's for that file (422). Throws BadRequest.
 */
void checkStatementsFit(const ReportRecord& report, bool manifestIssued,
                        const std::vector<StatementRecord>& statements);

}  // namespace kiv::service

// KivProvenance: the certification service's provenance routes, under "v1/" beside the report routes.
#include <utility>

#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/Provenance/FileStatement.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "KivSDK/Provenance/ProvenanceError.hpp"
#include "KivSDK/Provenance/detail/Base64Url.hpp"
#include "KivSDK/Provenance/detail/JWS.hpp"
#include "KivSDK/Provenance/detail/OpenSSL.hpp"
#include "ZuFoundation/FatalError.hpp"
#include "ZuFoundation/internal/Posix.hpp"
#include "ZuNetworking/ZuError.hpp"

namespace kiv {
namespace {

using Dictionary = zu::AnyCodable::Dictionary;

// Manifests, time-stamps and certificate chains are a few KiB; the bound keeps a broken answer from costing
// more than that.
constexpr std::size_t kLargestDocument = std::size_t{4} << 20;

zu::Error invalidResponse(std::string message) {
  return zu::ZuError::invalidResponseData(std::move(message));
}

zu::URL serviceURL(const std::string& path) {
  const std::string text = std::string(KivAPI::APIEndpoint::baseURL()) + "/v1/" + path;
  auto url = zu::URL::fromString(text);
  if (!url) zu::fatalError("Not a URL: " + text);
  return *url;
}

std::optional<zu::Error> missingSlug(const KivReport& report) {
  if (report.slug) return std::nullopt;
  return ProvenanceError::make(ProvenanceError::unstatableFile,
                               "The report " + report.name + " has no slug: send it to the service first");
}

std::string reportPath(const KivReport& report, std::string_view route) {
  return "reports/" + *report.slug + "/" + std::string(route) + "/";
}

std::string textOf(const zu::Data& bytes) { return {bytes.begin(), bytes.end()}; }

// A document fetched from the service: `judge` turns its bytes into the completion's value, or an error.
template <class Value, class Judge>
void fetchDocument(const std::string& path,
                   std::function<void(std::optional<Value>, std::optional<zu::Error>)> completion,
                   Judge judge) {
  KivAPI::_clientInstance()->downloadRequest(
      serviceURL(path), false, "GET", {},
      [completion = std::move(completion), judge = std::move(judge)](const std::optional<zu::URL>& location,
                                                                     const std::optional<zu::Error>& error) {
        if (error) return completion(std::nullopt, error);
        if (!location) return completion(std::nullopt, invalidResponse("The service sent no document"));
        auto bytes = zu::detail::readWholeFile(location->path(), kLargestDocument);
        if (!bytes) return completion(std::nullopt, bytes.error());
        zu::Result<Value> value = judge(std::move(*bytes));
        if (!value) return completion(std::nullopt, value.error());
        completion(std::move(*value), std::nullopt);
      });
}

// The text under `key` of `object`, null when missing or not text.
const std::string* text(const Dictionary& object, std::string_view key) {
  const zu::AnyCodable* value = object.find(key);
  return value ? value->stringValue() : nullptr;
}

zu::Result<std::vector<KivProvenance::StatementReceipt>> receipts(const Dictionary& answer) {
  const zu::AnyCodable* list = answer.find("statements");
  const zu::AnyCodable::Array* array = list ? list->arrayValue() : nullptr;
  if (!array) return invalidResponse("Response JSON dictionary is missing 'statements'");
  std::vector<KivProvenance::StatementReceipt> held;
  for (const zu::AnyCodable& element : *array) {
    const Dictionary* object = element.dictionaryValue();
    const std::string* fileName = object ? text(*object, "file_name") : nullptr;
    const std::string* keyId = object ? text(*object, "key_id") : nullptr;
    if (!fileName || !keyId)
      return invalidResponse("A statement in the response lacks 'file_name' or 'key_id'");
    held.push_back({*fileName, *keyId});
  }
  return held;
}

// The JWS of the statements about the report's files as they are; a statement about a file the report no
// longer has, or about other bytes under its name, stays on the device.
zu::Result<zu::AnyCodable::Array> statementsToSend(const KivReport& report) {
  if (!report.id)
    return ProvenanceError::make(ProvenanceError::unstatableFile, "The report " + report.name + " has no id");
  const auto stored = ReportStatements::load(*report.id);
  if (!stored) return stored.error();
  zu::AnyCodable::Array statements;
  for (const KivFile& file : report.files) {
    const auto found = stored->find(FileStatement::wireName(file));
    if (found == stored->end()) continue;
    const auto statement = FileStatement::read(found->second);
    if (statement && statement->sha256 == file.hash) statements.emplace_back(found->second);
  }
  if (statements.empty()) {
    return ProvenanceError::make(ProvenanceError::unstatableFile,
                                 "The report " + report.name + " has no signed statements about its files");
  }
  return statements;
}

void postStatements(const KivReport& report, zu::AnyCodable::Array statements,
                    KivProvenance::ReceiptsCompletion completion) {
  KivAPI::_clientInstance()->sendRequestWithDictionaryResponse(
      serviceURL(reportPath(report, "statements")), "POST", {},
      zu::AnyCodable(Dictionary{{"statements", std::move(statements)}}),
      [completion = std::move(completion)](std::optional<Dictionary> answer, std::optional<zu::Error> error) {
        if (error) return completion(std::nullopt, std::move(error));
        auto held = receipts(*answer);
        if (!held) return completion(std::nullopt, held.error());
        completion(std::move(*held), std::nullopt);
      });
}

}  // namespace

void KivProvenance::registerDeviceKey(KeyCompletion completion) {
  const auto signer = deviceSigner();
  if (!signer) return completion(std::nullopt, signer.error());
  const std::string keyId = (*signer)->keyId();
  const Dictionary body{{"public_key", detail::base64UrlEncode((*signer)->publicKey())}};
  KivAPI::_clientInstance()->sendRequestWithDictionaryResponse(
      serviceURL("device-keys/"), "POST", {}, zu::AnyCodable(body),
      [keyId, completion = std::move(completion)](std::optional<Dictionary> answer,
                                                  std::optional<zu::Error> error) {
        if (error) return completion(std::nullopt, std::move(error));
        const std::string* registered = text(*answer, "key_id");
        if (!registered || *registered != keyId) {
          return completion(std::nullopt,
                            invalidResponse("The service did not register the device key " + keyId));
        }
        completion(keyId, std::nullopt);
      });
}

void KivProvenance::sendStatements(const KivReport& report, ReceiptsCompletion completion) {
  if (auto error = missingSlug(report)) return completion(std::nullopt, std::move(error));
  auto statements = statementsToSend(report);
  if (!statements) return completion(std::nullopt, statements.error());
  registerDeviceKey([report, statements = std::move(*statements), completion = std::move(completion)](
                        const std::optional<std::string>& keyId, std::optional<zu::Error> error) mutable {
    if (!keyId) return completion(std::nullopt, std::move(error));
    postStatements(report, std::move(statements), std::move(completion));
  });
}

void KivProvenance::fetchManifest(const KivReport& report, TextCompletion completion) {
  if (auto error = missingSlug(report)) return completion(std::nullopt, std::move(error));
  fetchDocument<std::string>(reportPath(report, "manifest"), std::move(completion),
                             [](const zu::Data& bytes) -> zu::Result<std::string> {
                               std::string jws = textOf(bytes);
                               if (!detail::readJWS(jws, "ES256"))
                                 return invalidResponse("The manifest is not a JWS");
                               return jws;
                             });
}

void KivProvenance::fetchTimestamp(const KivReport& report, DataCompletion completion) {
  if (auto error = missingSlug(report)) return completion(std::nullopt, std::move(error));
  fetchDocument<zu::Data>(
      reportPath(report, "timestamp"), std::move(completion),
      [](const zu::Data& bytes) -> zu::Result<zu::Data> {
        const unsigned char* der = bytes.data();
        const detail::TimestampResponse response(d2i_TS_RESP(nullptr, &der, static_cast<long>(bytes.size())));
        if (!response) {
          detail::takeOpenSSLError("");
          return invalidResponse("The time-stamp is not an RFC 3161 response");
        }
        return bytes;
      });
}

void KivProvenance::fetchCertificates(TextCompletion completion) {
  fetchDocument<std::string>(
      "provenance/certificates/", std::move(completion),
      [](const zu::Data& bytes) -> zu::Result<std::string> {
        std::string pem = textOf(bytes);
        if (!detail::readCertificates(pem)) {
          return invalidResponse("The service's certificates are not PEM certificates");
        }
        return pem;
      });
}

}  // namespace kiv

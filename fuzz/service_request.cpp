// What a client sends the reference service: the first byte picks a reader, the rest is its input. Bodies
// must be refused with a BadRequest or read into records that render back to a body that reads again;
// request heads must be framed within their bytes; a storage address's query must never pass its signature
// check unless the service signed it; device statements must be refused unless signed by a registered key,
// and base64url text decodes only from its one canonical form.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "HttpsServer.hpp"
#include "Jws.hpp"
#include "Statements.hpp"
#include "Storage.hpp"
#include "TlsConnection.hpp"
#include "Wire.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using namespace kiv::service;

void readReport(std::string_view body) {
  const ReportRecord report = parseReport(body);
  const ReportRecord again = parseReport(
      renderReport(report, [](const FileRecord&) { return std::optional<std::string>(); }).dump());
  if (again.name != report.name || again.files.size() != report.files.size() ||
      again.metaData != report.metaData) {
    std::abort();
  }
}

void readNewsletter(std::string_view body) {
  const NewsletterRequest request = parseNewsletter(body);
  (void)renderSubscriptions(request.email, request.subscriptions).dump();
}

// The head as the event loop frames it, and the declared body length of its fields.
void frameHead(std::string_view text) {
  const std::size_t end = requestHeadEnd(text);
  if (end == std::string_view::npos) return;
  if (end > text.size() || requestHeadEnd(text.substr(0, end)) != end) std::abort();
  httplib::Request request;
  for (std::string_view head = text.substr(0, end); !head.empty();) {
    const std::string_view line = head.substr(0, head.find('\n'));
    head.remove_prefix(std::min(line.size() + 1, head.size()));
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string_view value = line.substr(colon + 1);
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    while (value.ends_with('\r') || value.ends_with(' ')) value.remove_suffix(1);
    request.headers.emplace(line.substr(0, colon), value);
  }
  (void)declaredBodyLength(request);
}

const UrlSigner& signer() {
  static const testing_support::TemporaryDirectory scratch(
      testing_support::TemporaryDirectory::Place::memory);
  static const UrlSigner instance(scratch.path() / "key");
  return instance;
}

// "<path>?<query>": the query's "expires" and "signature" are checked as the storage routes check them.
void checkSignature(std::string_view text) {
  const std::size_t mark = std::min(text.find('?'), text.size());
  const std::string path(text.substr(0, mark));
  httplib::Params params;
  httplib::detail::parse_query_text(std::string(text.substr(std::min(mark + 1, text.size()))), params);
  const auto param = [&](const char* name) {
    const auto found = params.find(name);
    return found == params.end() ? std::string() : found->second;
  };
  if (signer().verify("GET", path, param("expires"), param("signature")) == UrlSigner::Verdict::valid)
    std::abort();
  std::string signedQuery = signer().sign("GET", path, std::chrono::hours(1));
  httplib::Params signedParams;
  httplib::detail::parse_query_text(signedQuery, signedParams);
  if (signer().verify("GET", path, signedParams.find("expires")->second,
                      signedParams.find("signature")->second) != UrlSigner::Verdict::valid)
    std::abort();
}

// No key is registered, so every statement must be refused, whatever its form.
void readStatements(std::string_view body) {
  for (const std::string& text : parseStatementList(body)) {
    if (const std::optional<std::string> bytes = fromBase64url(text); bytes && base64url(*bytes) != text) {
      std::abort();
    }
  }
  (void)verifyStatements(parseStatementList(body), [](const std::string&) { return std::nullopt; });
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  try {
    switch (data[0] % 5) {
      case 0:
        return readReport(input), 0;
      case 1:
        return readNewsletter(input), 0;
      case 2:
        return frameHead(input), 0;
      case 3:
        return checkSignature(input), 0;
      default:
        return readStatements(input), 0;
    }
  } catch (const BadRequest&) {
    return 0;  // a clear refusal is the expected answer to a bad body
  }
}

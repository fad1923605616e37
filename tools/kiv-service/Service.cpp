#include "Service.hpp"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "Crypto.hpp"
#include "Engines.hpp"
#include "HttpsServer.hpp"
#include "Pdf.hpp"
#include "Statements.hpp"
#include "Wire.hpp"

namespace kiv::service {
namespace {

using httplib::ContentReader;
using httplib::Request;
using httplib::Response;
using nlohmann::json;
using Handler = std::function<void(const Request&, Response&)>;
using BodyHandler = std::function<void(const Request&, Response&, const ContentReader&)>;

constexpr const char* kSlug = "([a-z0-9]+)";
constexpr const char* kStoragePattern = R"(/storage/([a-z0-9]+)/([a-z0-9]+)\.([A-Za-z0-9]{1,16}))";

void sendJson(Response& response, int status, const json& body) {
  response.status = status;
  response.set_content(body.dump(), "application/json");
}

void sendDetail(Response& response, int status, std::string_view text) {
  response.status = status;
  response.set_content(detail(text), "application/json");
}

void sendNotFound(Response& response) { sendDetail(response, 404, "Not found."); }

// One line per request: time, peer, method, path (never the query: upload URLs carry signatures), status,
// size, duration.
void logRequest(const Request& request, const Response& response,
                std::chrono::duration<double, std::milli> elapsed) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::array<char, 32> stamp{};
  static_cast<void>(std::strftime(stamp.data(), stamp.size(), "%Y-%m-%dT%H:%M:%SZ", &utc));
  const std::size_t size = response.content_provider_ ? response.content_length_ : response.body.size();
  static_cast<void>(std::fprintf(stderr, "%s %s \"%s %s\" %d %zu %.1fms\n", stamp.data(),
                                 request.remote_addr.c_str(), request.method.c_str(), request.path.c_str(),
                                 response.status, size, elapsed.count()));
}

void logFailure(const Request& request, const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "kiv-service: %s %s failed: %s\n", request.method.c_str(),
                                 request.path.c_str(), error.what()));
}

// Turns a refused request into its detail answer, an engine out of reach into a 503 (the node stays up and
// serves again once the engine is back) and any other failure into a 500.
void answer(const Request& request, Response& response, const std::function<void()>& call) {
  try {
    call();
  } catch (const BadRequest& error) {
    sendDetail(response, error.status, error.what());
  } catch (const sql::Error& error) {
    logFailure(request, error);
    if (error.failure != sql::Failure::unavailable) return sendDetail(response, 500, "Internal error.");
    sendDetail(response, 503, "The database is unavailable; try again shortly.");
  } catch (const ContentStoreUnavailable& error) {
    logFailure(request, error);
    sendDetail(response, 503, "The content store is unavailable; try again shortly.");
  } catch (const std::exception& error) {
    logFailure(request, error);
    sendDetail(response, 500, "Internal error.");
  }
}

// Runs one request under its route's fault, if one is switched on.
void serve(Faults& faults, const std::string& route, const Request& request, Response& response,
           const std::function<void()>& call) {
  const std::optional<Fault> fault = faults.take(route);
  if (fault && !faults.before(*fault, request)) return;
  answer(request, response, call);
  if (fault) faults.after(*fault, request, response);
}

Handler onRoute(Faults& faults, std::string route, Handler handler) {
  return [&faults, route = std::move(route), handler = std::move(handler)](const Request& request,
                                                                           Response& response) {
    serve(faults, route, request, response, [&] { handler(request, response); });
  };
}

BodyHandler onRoute(Faults& faults, std::string route, BodyHandler handler) {
  return [&faults, route = std::move(route), handler = std::move(handler)](
             const Request& request, Response& response, const ContentReader& reader) {
    serve(faults, route, request, response, [&] { handler(request, response, reader); });
  };
}

// The handler that calls `member` of `service`: a route of the table, answered by its own member.
template <class... Arguments>
std::function<void(Arguments...)> bound(Service& service, void (Service::*member)(Arguments...)) {
  return [&service, member](Arguments... arguments) { (service.*member)(arguments...); };
}

// A JSON body, read only now that the request is admitted, and never more than kMaxJsonBodyBytes of it.
std::string readJsonBody(const ContentReader& reader) {
  std::string body;
  bool tooLarge = false;
  const bool whole = reader([&](const char* data, std::size_t size) {
    tooLarge = size > kMaxJsonBodyBytes - body.size();
    if (!tooLarge) body.append(data, size);
    return !tooLarge;
  });
  if (tooLarge) throw BadRequest(std::string(kBodyTooLarge), 413);
  if (!whole) throw BadRequest("The request body did not arrive whole.");
  return body;
}

std::string contentType(const std::string& ext) {
  static const std::map<std::string, std::string> types{
      {"jpg", "image/jpeg"}, {"jpeg", "image/jpeg"},     {"png", "image/png"},      {"heic", "image/heic"},
      {"mp4", "video/mp4"},  {"mov", "video/quicktime"}, {"pdf", "application/pdf"}};
  std::string lower = ext;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  const auto found = types.find(lower);
  return found == types.end() ? "application/octet-stream" : found->second;
}

// Device keys belong to the application token that registered them; the store keeps a digest of it, never
// the token.
std::string ownerOf(const Request& request) { return sha256Hex(request.get_header_value("Authorization")); }

const FileRecord* fileWithSlug(const ReportRecord& report, const std::string& slug) {
  for (const FileRecord& file : report.files) {
    if (file.slug == slug) return &file;
  }
  return nullptr;
}

}  // namespace

Service::Service(const Options& options)
    : options_(options),
      tls_(ensureTlsMaterial(options.tlsDir.value_or(options.dataDir))),
      provenance_(options.tlsDir.value_or(options.dataDir), tls_),
      database_(openDatabase(options)),
      store_(*database_,
             [this](const ReportRecord& report, const std::vector<StatementRecord>& statements) {
               return provenance_.issue(report, statements);
             }),
      content_(openContentStore(options)),
      folder_(dynamic_cast<const FolderContentStore*>(content_.get())),
      server_(std::make_unique<HttpsServer>(tls_, static_cast<std::size_t>(options.threads))) {
  for (const auto& [route, fault] : options_.faults) faults_.set(route, fault);
  server_->set_expect_100_continue_handler([this](const Request& request, Response& response) {
    return admit(request, response) ? 100 : response.status;
  });
  server_->set_pre_routing_handler([this](const Request& request, Response& response) {
    return admit(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                    : httplib::Server::HandlerResponse::Handled;
  });
  server_->setLogger(logRequest);
  server_->set_error_handler([](const Request&, Response& response) {
    if (response.body.empty() && !response.content_provider_) {
      sendDetail(response, response.status, response.status == 404 ? "Not found." : "Request failed.");
    }
  });
  addRoutes();
}

Service::~Service() = default;

int Service::bind() {
  port_ = server_->bind(options_.port);
  return port_;
}

bool Service::run() { return server_->run(); }

void Service::stop() {
  faults_.shutdown();
  server_->stop();
}

// The route table: each route's method, path, the name its faults are switched on by (none for the admin
// and health routes) and the member that answers it.
void Service::addRoutes() {
  const auto routed = [this](const char* fault, auto member) {
    return onRoute(faults_, fault, bound(*this, member));
  };
  const std::string report = std::string("/v1/reports/") + kSlug + "/";
  server_->Post("/v1/reports/", routed("create", &Service::createReport));
  server_->Patch(report, routed("patch", &Service::patchReport));
  server_->Get(report, routed("get", &Service::getReport));
  server_->Get(report + "file-upload/", routed("file-upload", &Service::fileUploadAddresses));
  server_->Post(report + "force-status/", routed("force-status", &Service::forceStatus));
  server_->Post(report + "pdf/", routed("pdf", &Service::certificate));
  server_->Post("/v1/newsletter/", routed("newsletter", &Service::subscribe));
  server_->Get("/v1/newsletter/", routed("newsletter", &Service::subscriptions));
  server_->Post("/v1/device-keys/", routed("device-keys", &Service::registerDeviceKey));
  server_->Post(report + "statements/", routed("statements", &Service::addStatements));
  server_->Get(report + "manifest/", routed("manifest", &Service::signedManifest));
  server_->Get(report + "timestamp/", routed("timestamp", &Service::timestampToken));
  server_->Get("/v1/provenance/certificates/", routed("certificates", &Service::provenanceCertificates));
  if (folder_) {
    server_->Put(kStoragePattern, routed("put", &Service::storeUpload));
    server_->Get(kStoragePattern, routed("download", &Service::serveDownload));
  }
  const std::string fault = R"(/admin/faults/([a-z*-]+))";
  server_->Get("/admin/faults", bound(*this, &Service::listFaults));
  server_->Put(fault, bound(*this, &Service::setFault));
  server_->Delete(fault, bound(*this, &Service::clearFault));
  server_->Get("/health", bound(*this, &Service::health));
  server_->Get("/ready", bound(*this, &Service::ready));
  // Last: a request with a body that no route takes is refused unread; httplib would read the whole body
  // before answering 404.
  const BodyHandler notFound = [](const Request&, Response& response, const ContentReader&) {
    sendNotFound(response);
  };
  server_->Post(".*", notFound);
  server_->Put(".*", notFound);
  server_->Patch(".*", notFound);
  server_->Delete(".*", notFound);
}

void Service::createReport(const Request& request, Response& response, const ContentReader& reader) {
  const ReportRecord created = store_.create(parseReport(readJsonBody(reader)));
  answerReport(request, response, created, 201);
}

void Service::patchReport(const Request& request, Response& response, const ContentReader& reader) {
  ReportRecord changes = parseReport(readJsonBody(reader));
  std::vector<std::string> dropped;
  const std::optional<ReportRecord> changed = store_.replace(request.matches[1], std::move(changes), dropped);
  if (!changed) return sendNotFound(response);
  for (const std::string& fileSlug : dropped) content_->remove(changed->slug, fileSlug);
  answerReport(request, response, *changed);
}

void Service::getReport(const Request& request, Response& response) {
  const std::optional<ReportRecord> found = store_.find(request.matches[1]);
  if (!found) return sendNotFound(response);
  answerReport(request, response, withArrivedContent(*found));
}

void Service::fileUploadAddresses(const Request& request, Response& response) {
  const std::optional<ReportRecord> found = store_.find(request.matches[1]);
  if (!found) return sendNotFound(response);
  static const std::regex extension("[A-Za-z0-9]{1,16}");
  const std::string type = request.get_param_value("type");
  const std::string fileSlug = request.get_param_value("file_slug");
  if (!std::regex_match(type, extension)) throw BadRequest("'type' must be a file extension such as jpg.");
  if (fileSlug.empty()) throw BadRequest("'file_slug' is required.");
  const FileRecord* file = fileWithSlug(*found, fileSlug);
  if (!file) return sendNotFound(response);
  const std::string base = origin(request);
  sendJson(response, 200,
           {{"upload_uri", fileAddress("PUT", base, found->slug, *file, type)},
            {"file", fileAddress("GET", base, found->slug, *file, type)}});
}

// Force-status and pdf take no body; one that is sent anyway is left unread.
void Service::forceStatus(const Request& request, Response& response, const ContentReader&) {
  const std::optional<ReportRecord> found = store_.find(request.matches[1]);
  if (!found) return sendNotFound(response);
  // Hash the stored content again: what counts is what is stored now, not what was received.
  std::vector<std::pair<std::string, std::optional<StoredContent>>> contents;
  for (const FileRecord& file : found->files) {
    contents.emplace_back(file.slug, content_->inspect(found->slug, file));
  }
  const std::optional<ReportRecord> updated = store_.updateStoredContent(found->slug, contents);
  if (!updated) return sendNotFound(response);
  answerReport(request, response, *updated);
}

void Service::certificate(const Request& request, Response& response, const ContentReader&) {
  const std::optional<ReportRecord> found = store_.find(request.matches[1]);
  if (!found) return sendNotFound(response);
  const Language language = negotiateLanguage(request.get_header_value("Accept-Language"));
  const std::optional<ManifestRecord> manifest = store_.manifest(found->slug);
  response.set_content(
      manifest ? provenance_.certificate(*manifest, language) : renderCertificate(*found, language),
      "application/pdf");
  response.set_header("Content-Disposition", "attachment; filename=\"" + found->slug + ".pdf\"");
}

void Service::subscribe(const Request&, Response& response, const ContentReader& reader) {
  const NewsletterRequest subscription = parseNewsletter(readJsonBody(reader));
  store_.subscribe(subscription.email, subscription.subscriptions);
  sendJson(response, 200, {{"success", true}});
}

void Service::subscriptions(const Request& request, Response& response) {
  const std::string email = request.get_param_value("email");
  if (email.empty()) throw BadRequest("'email' is required.");
  sendJson(response, 200, renderSubscriptions(email, store_.subscriptions(email)));
}

void Service::registerDeviceKey(const Request& request, Response& response, const ContentReader& reader) {
  const DeviceKey key = deviceKeyFrom(parsePublicKey(readJsonBody(reader)));
  const bool created = store_.registerDeviceKey(ownerOf(request), key);
  sendJson(response, created ? 201 : 200, {{"key_id", key.keyId}, {"public_key", key.publicKey}});
}

void Service::addStatements(const Request& request, Response& response, const ContentReader& reader) {
  const std::string owner = ownerOf(request);
  const std::vector<StatementRecord> statements =
      verifyStatements(parseStatementList(readJsonBody(reader)),
                       [&](const std::string& keyId) { return store_.deviceKey(owner, keyId); });
  const std::optional<std::vector<StatementRecord>> kept = store_.addStatements(
      request.matches[1], statements,
      [&](const ReportRecord& found, bool issued) { checkStatementsFit(found, issued, statements); });
  if (!kept) return sendNotFound(response);
  sendJson(response, 200, renderStatements(*kept));
}

void Service::signedManifest(const Request& request, Response& response) {
  if (const std::optional<ManifestRecord> manifest = manifestFor(request, response)) {
    response.set_content(manifest->jws, "application/jose");
  }
}

void Service::timestampToken(const Request& request, Response& response) {
  if (const std::optional<ManifestRecord> manifest = manifestFor(request, response)) {
    response.set_content(manifest->timestamp, "application/timestamp-reply");
  }
}

void Service::provenanceCertificates(const Request&, Response& response) {
  response.set_content(provenance_.certificateChain(), "application/pem-certificate-chain");
}

void Service::storeUpload(const Request& request, Response& response, const ContentReader& reader) {
  if (!checkSignature(request, response)) return;
  const std::optional<ReportRecord> report = store_.find(request.matches[1]);
  if (!report || !fileWithSlug(*report, request.matches[2])) return sendNotFound(response);
  ContentStorage::Upload upload = folder_->storage().beginUpload(request.matches[2], request.matches[3]);
  const bool received = reader([&](const char* data, std::size_t size) { return upload.write(data, size); });
  if (!received) return sendDetail(response, 400, "The upload did not complete.");
  const std::optional<StoredContent> stored = upload.commit();
  if (!stored) return sendDetail(response, 507, "The content could not be stored.");
  if (!store_.recordContent(request.matches[1], request.matches[2], *stored)) {
    return sendNotFound(response);  // the file was dropped from its report while the upload ran
  }
  sendJson(response, 201, {{"hash", stored->sha256}, {"size", stored->size}});
}

void Service::serveDownload(const Request& request, Response& response) {
  if (!checkSignature(request, response)) return;
  const std::optional<ReportRecord> report = store_.find(request.matches[1]);
  const FileRecord* file = report ? fileWithSlug(*report, request.matches[2]) : nullptr;
  if (!file || file->storedExt != request.matches[3].str()) return sendNotFound(response);
  const int descriptor = ::open(folder_->storage().pathOf(file->slug).c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (descriptor < 0 || ::fstat(descriptor, &status) != 0) {
    if (descriptor >= 0) ::close(descriptor);
    return sendNotFound(response);
  }
  // Served in blocks from the file, so memory stays flat however large it is; httplib applies Range.
  response.set_content_provider(
      static_cast<std::size_t>(status.st_size), contentType(file->storedExt.value_or("")),
      [descriptor](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        std::array<char, 1 << 16> block{};
        const ssize_t got =
            ::pread(descriptor, block.data(), std::min(length, block.size()), static_cast<off_t>(offset));
        return got > 0 && sink.write(block.data(), static_cast<std::size_t>(got));
      },
      [descriptor](bool) { ::close(descriptor); });
}

void Service::listFaults(const Request&, Response& response) { sendJson(response, 200, faults_.toJson()); }

void Service::setFault(const Request& request, Response& response, const ContentReader& reader) {
  if (!Faults::isRoute(request.matches[1].str())) return sendNotFound(response);
  answer(request, response, [&] {
    const std::optional<Fault> fault = Fault::fromJson(parseJson(readJsonBody(reader)));
    if (!fault) throw BadRequest(R"(Expected {"kind": ..., "ms", "status", "text", "times"}.)");
    faults_.set(request.matches[1], *fault);
    sendJson(response, 200, fault->toJson());
  });
}

void Service::clearFault(const Request& request, Response& response, const ContentReader&) {
  faults_.clear(request.matches[1]);
  response.status = 204;
}

// /health answers while the process serves; /ready only while both engines answer too, so that a balancer
// sends requests elsewhere while this node cannot reach them.
void Service::health(const Request&, Response& response) { sendJson(response, 200, {{"status", "ok"}}); }

void Service::ready(const Request& request, Response& response) {
  answer(request, response, [&] {
    store_.probe();
    content_->probe();
    sendJson(response, 200, {{"status", "ready"}});
  });
}

// Decided from the request line and headers alone, before a byte of any body is read: the method, the app
// token under /v1/, and the declared size of any body but a storage upload's.
bool Service::admit(const Request& request, Response& response) const {
  static const std::set<std::string, std::less<>> methods{"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE"};
  if (!methods.contains(request.method)) {
    sendDetail(response, 405, "Method not allowed.");
    return false;
  }
  if (request.path.starts_with("/v1/") && !authorised(request, response)) return false;
  const bool upload = request.method == "PUT" && request.path.starts_with("/storage/");
  if (!upload && declaredBodyLength(request).value_or(0) > kMaxJsonBodyBytes) {
    sendDetail(response, 413, kBodyTooLarge);
    return false;
  }
  return true;
}

bool Service::authorised(const Request& request, Response& response) const {
  static constexpr std::string_view scheme = "app-token ";
  const std::string header = request.get_header_value("Authorization");
  if (header.empty()) {
    sendDetail(response, 401, "Authentication credentials were not provided.");
    return false;
  }
  const std::string_view token = std::string_view(header).substr(std::min(header.size(), scheme.size()));
  const bool wellFormed = header.starts_with(scheme) && !token.empty();
  const bool known =
      options_.openAccess || std::any_of(options_.tokens.begin(), options_.tokens.end(),
                                         [&](const std::string& t) { return constantTimeEquals(t, token); });
  if (wellFormed && known) return true;
  response.set_header("WWW-Authenticate", "app-token");
  sendDetail(response, 401, "Invalid token.");
  return false;
}

// Addresses handed out use the host name the client used, as long as the certificate covers it.
std::string Service::origin(const Request& request) const {
  const bool localhost = request.get_header_value("Host").starts_with("localhost");
  return std::string("https://") + (localhost ? "localhost" : "127.0.0.1") + ":" + std::to_string(port_);
}

std::string Service::fileAddress(std::string_view method, const std::string& origin,
                                 const std::string& reportSlug, const FileRecord& file,
                                 const std::string& ext) const {
  const std::chrono::seconds ttl = method == "PUT" ? options_.uploadUrlTtl : options_.downloadUrlTtl;
  return content_->address(method, origin, reportSlug, file.slug, ext, ttl);
}

// Content that clients upload straight to the object store is recorded when it is seen, hashed, as an upload
// to the service's own storage routes is: until a file is proven, each look at its report looks for it again,
// so that a corrected upload replaces a wrong one.
ReportRecord Service::withArrivedContent(ReportRecord report) {
  if (!content_->receivesUploadsDirectly()) return report;
  for (const FileRecord& file : std::vector<FileRecord>(report.files)) {
    if (file.storedHash && file.storedHash == file.hash) continue;  // proven; force-status checks it again
    const std::optional<StoredContent> stored = content_->inspect(report.slug, file);
    if (!stored) continue;
    if (std::optional<ReportRecord> updated = store_.recordContent(report.slug, file.slug, *stored)) {
      report = std::move(*updated);
    }
  }
  return report;
}

void Service::answerReport(const Request& request, Response& response, const ReportRecord& report,
                           int status) const {
  const std::string base = origin(request);
  sendJson(response, status, renderReport(report, [&](const FileRecord& file) -> std::optional<std::string> {
             if (!file.storedExt) return std::nullopt;
             return fileAddress("GET", base, report.slug, file, *file.storedExt);
           }));
}

std::optional<ManifestRecord> Service::manifestFor(const Request& request, Response& response) {
  if (!store_.find(request.matches[1])) {
    sendNotFound(response);
    return std::nullopt;
  }
  std::optional<ManifestRecord> manifest = store_.manifest(request.matches[1]);
  if (!manifest)
    sendDetail(response, 409, "The report has no manifest yet: it is issued when the report is confirmed.");
  return manifest;
}

bool Service::checkSignature(const Request& request, Response& response) const {
  const std::string method = request.method == "HEAD" ? "GET" : request.method;
  switch (folder_->signer().verify(method, request.path, request.get_param_value("expires"),
                                   request.get_param_value("signature"))) {
    case UrlSigner::Verdict::valid:
      return true;
    case UrlSigner::Verdict::expired:
      sendDetail(response, 403, "This URL has expired.");
      return false;
    case UrlSigner::Verdict::forged:
      sendDetail(response, 403, "The URL's signature is not valid.");
      return false;
  }
  return false;
}

}  // namespace kiv::service

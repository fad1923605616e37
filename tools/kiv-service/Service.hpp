#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ContentStore.hpp"
#include "Database.hpp"
#include "Faults.hpp"
#include "Options.hpp"
#include "Provenance.hpp"
#include "Storage.hpp"
#include "Store.hpp"
#include "TlsMaterial.hpp"

namespace httplib {
class ContentReader;
struct Request;
struct Response;
}  // namespace httplib

namespace kiv::service {

class HttpsServer;

/**
 * The HTTPS service on 127.0.0.1: the report API under /v1/ (app token required), signed storage URLs under
 * /storage/ (with the folder content store), the fault switches under /admin/faults/, and /health and /ready
 * for load balancers. Several nodes may share one PostgreSQL database and one object store: a node keeps no
 * state of its own between requests. Every request is logged to stderr, one line each,
 * with its path but never its query or headers, so neither tokens nor signatures reach the log.
 *
 * What a client sends is bounded: the token is checked from the headers before a body is read, JSON bodies
 * are limited in size and depth, and only storage uploads stream large bodies (to disk).
 *
 * @par Thread Safety
 * `bind` and `run` are called once, in that order, from one thread; `stop` may be called from any thread.
 */
class Service {
 public:
  /// Opens the engines that `options` name; throws std::runtime_error saying which cannot be reached and how
  /// to fix it.
  explicit Service(const Options& options);
  ~Service();

  /// Binds the listening socket and answers the port; 0 when the port cannot be bound.
  int bind();
  /// Serves until `stop`; false when the server could not run.
  bool run();
  void stop();

  const TlsMaterial& tls() const { return tls_; }

 private:
  void addRoutes();

  // The routes, one member each. Those under /v1/ run behind `admit` and their fault switch.
  void createReport(const httplib::Request& request, httplib::Response& response,
                    const httplib::ContentReader& reader);
  void patchReport(const httplib::Request& request, httplib::Response& response,
                   const httplib::ContentReader& reader);
  void getReport(const httplib::Request& request, httplib::Response& response);
  void fileUploadAddresses(const httplib::Request& request, httplib::Response& response);
  void forceStatus(const httplib::Request& request, httplib::Response& response,
                   const httplib::ContentReader&);
  void certificate(const httplib::Request& request, httplib::Response& response,
                   const httplib::ContentReader&);
  void subscribe(const httplib::Request& request, httplib::Response& response,
                 const httplib::ContentReader& reader);
  void subscriptions(const httplib::Request& request, httplib::Response& response);
  // Provenance: device keys, the statements of a report's files, its signed manifest and time-stamp, and the
  // certificates that check them.
  void registerDeviceKey(const httplib::Request& request, httplib::Response& response,
                         const httplib::ContentReader& reader);
  void addStatements(const httplib::Request& request, httplib::Response& response,
                     const httplib::ContentReader& reader);
  void signedManifest(const httplib::Request& request, httplib::Response& response);
  void timestampToken(const httplib::Request& request, httplib::Response& response);
  void provenanceCertificates(const httplib::Request& request, httplib::Response& response);
  // The service's own storage, when content is kept in the data folder: signed addresses only.
  void storeUpload(const httplib::Request& request, httplib::Response& response,
                   const httplib::ContentReader& reader);
  void serveDownload(const httplib::Request& request, httplib::Response& response);
  // The fault switches, and the node's health for a balancer.
  void listFaults(const httplib::Request& request, httplib::Response& response);
  void setFault(const httplib::Request& request, httplib::Response& response,
                const httplib::ContentReader& reader);
  void clearFault(const httplib::Request& request, httplib::Response& response,
                  const httplib::ContentReader&);
  void health(const httplib::Request& request, httplib::Response& response);
  void ready(const httplib::Request& request, httplib::Response& response);

  bool admit(const httplib::Request& request, httplib::Response& response) const;
  bool authorised(const httplib::Request& request, httplib::Response& response) const;
  std::string origin(const httplib::Request& request) const;
  std::string fileAddress(std::string_view method, const std::string& origin, const std::string& reportSlug,
                          const FileRecord& file, const std::string& ext) const;
  ReportRecord withArrivedContent(ReportRecord report);
  void answerReport(const httplib::Request& request, httplib::Response& response, const ReportRecord& report,
                    int status = 200) const;
  bool checkSignature(const httplib::Request& request, httplib::Response& response) const;
  /// The manifest of the request's report; answers 404 or 409 itself when there is none.
  std::optional<ManifestRecord> manifestFor(const httplib::Request& request, httplib::Response& response);

  Options options_;
  TlsMaterial tls_;
  Provenance provenance_;
  std::unique_ptr<sql::Database> database_;
  Store store_;
  std::unique_ptr<ContentStore> content_;
  const FolderContentStore* folder_;  ///< the content store when it is the data folder's, else null
  Faults faults_;
  std::unique_ptr<HttpsServer> server_;
  int port_ = 0;
};

}  // namespace kiv::service

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "KivSDK/API/KivUserProperties.hpp"
#include "KivSDK/Model/KivFile.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuFoundation/URL.hpp"
#include "ZuMailList/ZuMailList.hpp"
#include "ZuNetworking/ZuNetworking.hpp"

namespace kiv {

/**
 * The certification service: submit reports, refresh their proof status, fetch certificates, move file
 * content, and register newsletter subscriptions. Never instantiated; every member is static.
 *
 * Set-up is one call, `setup(with:)`, with the application token. Requests go through two networking
 * instances made on first use: the client instance ("KivAPI_ClientInstance") carries the service's own API
 * with the token; the public instance ("KivAPI_PublicInstance") carries transfers to and from the storage
 * addresses the service hands out, which need no token. Without a token, both are the public instance.
 *
 * The service's address is fixed when the SDK is built (`APIEndpoint::baseURL()`, CMake cache variable
 * KIV_SERVICE_BASE_URL). Certificates are always verified: against the system's authorities, and, in a build
 * for the local reference service, also against the CA file that service writes for the user
 * (`serviceCertificateAuthorityFile()`).
 *
 * Every operation ends in one completion, called exactly once: on the networking layer's thread when the
 * request was sent (no hop to a main thread), or before the operation returns, with nothing sent, when a
 * precondition fails. Errors of the SDK's own checks are `zu::ZuError::invalidResponseData` carrying an
 * English message; errors of the networking layer are passed on unchanged. Records are values: operations
 * return new copies and never write the report store.
 *
 * @code
 * kiv::KivAPI::setup("my-app-token");
 * kiv::KivAPI::send(report, "en", [](std::optional<kiv::KivReport> sent, std::optional<zu::Error> error) {
 *   if (!sent) return log(error->localizedDescription());
 *   for (const kiv::KivFile& file : sent->files) {
 *     kiv::KivAPI::uploadContent(file, *sent, [](auto uploaded, auto error) { ... });
 *   }
 * });
 * @endcode
 *
 * @par Thread Safety
 * All operations may be called from any thread. The token, the networking type and the two instances are
 * guarded: each instance is made once even when first requests race.
 */
class KivAPI {
 public:
  class APIEndpoint;

  using ReportCompletion =
      std::function<void(std::optional<KivReport> report, std::optional<zu::Error> error)>;
  using FileCompletion = std::function<void(std::optional<KivFile> file, std::optional<zu::Error> error)>;
  using SuccessCompletion = std::function<void(bool success, std::optional<zu::Error> error)>;
  /// Bytes moved so far and bytes expected (-1 when the answer does not say), on the session's thread.
  using TransferProgress = zu::URLSessionTask::ProgressHandler;
  /// Makes a networking instance from an authentication text and an identifier: the "networking class".
  using NetworkingType = std::function<std::shared_ptr<zu::ZuNetworking>(std::optional<std::string> authToken,
                                                                         std::string identifier)>;

  /// The service's JSON keys and values, grouped as the service groups them.
  struct Const {
    struct API {
      struct Report {
        static constexpr std::string_view status = "status";
        static constexpr std::string_view slug = "slug";
        static constexpr std::string_view provableFiles = "provable_files";
        struct Status {
          static constexpr std::string_view undefined = "undefined";
          static constexpr std::string_view pending = "pending";
          static constexpr std::string_view confirmed = "confirmed";
          static constexpr std::string_view failed = "failed";
        };
      };
      struct File {
        static constexpr std::string_view type = "type";
        static constexpr std::string_view fileSlug = "file_slug";
        static constexpr std::string_view uploadURI = "upload_uri";
        static constexpr std::string_view file = "file";
      };
      struct Newsletter {
        static constexpr std::string_view email = "email";
        static constexpr std::string_view mailingLists = "mailing_lists";
        static constexpr std::string_view success = "success";
        struct MailingList {
          static constexpr std::string_view name = zu::ZuMailList::ServiceKeys::name;
          static constexpr std::string_view status = zu::ZuMailList::ServiceKeys::status;
          static constexpr std::string_view mergeFields = zu::ZuMailList::ServiceKeys::mergeFields;
          struct Status {
            static constexpr std::string_view subscribed = zu::ZuMailList::ServiceKeys::subscribed;
            static constexpr std::string_view unsubscribed = zu::ZuMailList::ServiceKeys::unsubscribed;
          };
          struct MergeFields {
            static constexpr std::string_view phone = "PHONE";
          };
        };
      };
    };
  };

  static constexpr std::string_view publicInstanceIdentifier = "KivAPI_PublicInstance";
  static constexpr std::string_view clientInstanceIdentifier = "KivAPI_ClientInstance";

  KivAPI() = delete;

  // ---- Set-up and instances ----

  /// Stores "app-token " + `with` as the client's authentication text, replacing an earlier one. Call it
  /// once at start-up: a client instance already made keeps the token it was made with.
  static void setup(const std::string& with);
  /// The stored authentication text ("app-token " + token), nothing before `setup`.
  static std::optional<std::string> _appToken();

  /// The networking type instances are made from; `standardNetworkingType()` until replaced.
  static NetworkingType _ZuNetworkingType();
  /// Replaces the networking type (a host or a test may install its own); instances already made stay. The
  /// type is called while KivAPI's state is locked, so it must not call KivAPI itself.
  static void set_ZuNetworkingType(NetworkingType type);
  /// `zu::ZuNetworking` whose sessions trust the system's authorities and
  /// `serviceCertificateAuthorityFile()`.
  static NetworkingType standardNetworkingType();
  /**
   * `zu::ZuNetworking` for a certification service at `baseURL` instead of the one the SDK was built for (a
   * staging service, the `kiv` command line's `--service`, a test's own): requests for
   * `APIEndpoint::baseURL()` go to `baseURL`, and sessions trust the authorities in `caFile` (PEM) besides
   * the system's; without `caFile`, those `standardNetworkingType()` trusts. Certificates are always
   * verified. Trailing "/" of `baseURL` are dropped; an address that is not https with a host fails with
   * `zu::URLError::badURL` (domain "NSURLErrorDomain").
   *
   * @code
   * auto staging = kiv::KivAPI::redirectedNetworkingType("https://staging.example.com", "staging-ca.pem");
   * if (staging) kiv::KivAPI::set_ZuNetworkingType(*staging);
   * @endcode
   */
  static zu::Result<NetworkingType> redirectedNetworkingType(const std::string& baseURL,
                                                             const std::optional<std::string>& caFile = {});
  /**
   * The CA file of the local reference service, for builds that talk to it: KIV_SERVICE_CA_FILE, a relative
   * path taken from the user's data folder ($XDG_DATA_HOME, else ~/.local/share) at run time. Nothing in a
   * build for any other service, which trusts the system's authorities only.
   */
  static std::optional<std::string> serviceCertificateAuthorityFile();

  /// The instance without token, made on first use.
  static std::shared_ptr<zu::ZuNetworking> _publicInstance();
  /// The instance with the token, made on first use after `setup`; the public instance before it.
  static std::shared_ptr<zu::ZuNetworking> _clientInstance();

  /**
   * Hands over the system's wake-up for the background session `identifier`: the instance of that name
   * (the client identifier before `setup` names the public instance) re-creates its background session, so
   * that transfers of an earlier process deliver their events, and calls `handler` on the main queue once
   * they are delivered. An unknown identifier drops the handler.
   */
  static void setBackgroundCompletionHandler(std::function<void()> handler, std::string_view identifier);
  /// Whether a content download (`downloadContent`) from `url` is still running.
  static bool isFileDownloadTaskPending(const zu::URL& url);

  // ---- Reports ----

  /**
   * Creates the report on the service ("POST") or, when it has a slug, replaces it ("PATCH"), with
   * "Accept-Language" `language`. The completion receives a copy with the service's status, slug and files
   * (sorted, with their slugs and remote addresses). Fails when the answer lacks "status", "slug" or
   * "provable_files", or when its files are not the report's own, in the same order.
   */
  static void send(const KivReport& report, const std::string& language, ReportCompletion completion);
  /// Fetches the report's proof status; the copy differs only in its status. Needs a slug.
  static void update(const KivReport& report, ReportCompletion completion);
  /// Has the service check the report's content again; the copy differs only in its status. Needs a slug.
  static void forceStatusUpdate(const KivReport& report, ReportCompletion completion);
  /// Downloads the report's certificate into `report.pdfURL()`, replacing a file there. Needs a slug.
  static void generatePDF(const KivReport& report, const std::string& language, SuccessCompletion completion);

  // ---- File content ----

  /**
   * Uploads the file's local content ("PUT", in the background) to the address the service gives for it.
   * Both records need a slug, and the content must stand at `file.localFileLocation()`. The completion
   * receives a copy whose `remoteUrl` is the file's address on the service. Fails without uploading when an
   * upload to the same address is still running.
   */
  static void uploadContent(const KivFile& file, const KivReport& report, FileCompletion completion);
  /// `uploadContent` reporting the upload's progress, throttled to a few reports a second.
  static void uploadContent(const KivFile& file, const KivReport& report, FileCompletion completion,
                            TransferProgress progress);
  /// Downloads the file's content (in the background) from its `remoteUrl` to `file.fileURL()`.
  static void downloadContent(const KivFile& file, SuccessCompletion completion);
  /// `downloadContent` reporting the download's progress, throttled to a few reports a second.
  static void downloadContent(const KivFile& file, SuccessCompletion completion, TransferProgress progress);

  // ---- Newsletters ----

  /// Registers the user's e-mail, phone and subscriptions; the completion receives the service's "success".
  static void updateNewsletters(const KivUserProperties& properties, const std::string& language,
                                SuccessCompletion completion);
};

}  // namespace kiv

// KivAPI: moving a file's content to and from the storage addresses the service hands out.
#include <string>
#include <utility>

#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/API/detail/ServiceCalls.hpp"

namespace kiv {
namespace {

using detail::Dictionary;
using detail::invalidResponse;
using Keys = KivAPI::Const::API::File;

constexpr std::string_view kUploadNeedsSlugs =
    "Upload content is only available for Reports and Files already submitted, i.e. they both must have a "
    "`slug`";
constexpr std::string_view kNoLocalContent = "There is no local content file for the requested file";
constexpr std::string_view kBadUploadURI =
    "Response JSON dictionary is missing 'upload_uri' value or it is not a valid URL";
constexpr std::string_view kUploadPending = "An upload request is already in process for this file";
constexpr std::string_view kBadFileURL =
    "Response JSON dictionary is missing 'file' value or it is not a valid URL";
constexpr std::string_view kMissingRemoteURL = "File for request is missing mandatory 'remoteURL' value";
constexpr std::string_view kMissingContent = "Response did not include a valid url for the content file";
constexpr std::string_view kUnusableFileName = "The file's name cannot be used as a local file name";

/// Where the content goes, and the file as it will stand once it is there.
struct UploadTarget {
  zu::URL uploadURL;
  KivFile uploaded;
};

// Judges the service's answer in this order: the upload address, no upload to it running yet, the file's
// address on the service.
zu::Result<UploadTarget> uploadTarget(const KivFile& file, const Dictionary& answer) {
  auto uploadURL = detail::urlValue(answer, Keys::uploadURI);
  if (!uploadURL) return invalidResponse(kBadUploadURI);
  if (KivAPI::_publicInstance()->isTaskPending(*uploadURL)) return invalidResponse(kUploadPending);
  auto remote = detail::urlValue(answer, Keys::file);
  if (!remote) return invalidResponse(kBadFileURL);
  KivFile uploaded = file;
  uploaded.remoteUrl = std::move(remote);
  return UploadTarget{std::move(*uploadURL), std::move(uploaded)};
}

void upload(const UploadTarget& target, const zu::URL& content, KivAPI::FileCompletion completion,
            KivAPI::TransferProgress progress) {
  KivAPI::_publicInstance()->uploadRequest(
      target.uploadURL, true, "PUT", "", {}, content,
      [uploaded = target.uploaded, completion = std::move(completion)](
          const std::optional<zu::AnyCodable>&, const std::optional<zu::Error>& error) {
        if (error) return completion(std::nullopt, error);
        completion(uploaded, std::nullopt);
      },
      std::move(progress));
}

}  // namespace

void KivAPI::uploadContent(const KivFile& file, const KivReport& report, FileCompletion completion) {
  uploadContent(file, report, std::move(completion), {});
}

void KivAPI::uploadContent(const KivFile& file, const KivReport& report, FileCompletion completion,
                           TransferProgress progress) {
  if (!report.slug || !file.slug) return completion(std::nullopt, invalidResponse(kUploadNeedsSlugs));
  auto content = file.localFileLocation();
  if (!content) return completion(std::nullopt, invalidResponse(kNoLocalContent));
  detail::sendToService(APIEndpoint::getFileUploadURL(report, file), {},
                        [file, content = std::move(*content), completion = std::move(completion),
                         progress = std::move(progress)](std::optional<Dictionary> answer,
                                                         std::optional<zu::Error> error) mutable {
                          if (error) return completion(std::nullopt, std::move(error));
                          auto target = uploadTarget(file, *answer);
                          if (!target) return completion(std::nullopt, target.error());
                          upload(*target, content, std::move(completion), std::move(progress));
                        });
}

void KivAPI::downloadContent(const KivFile& file, SuccessCompletion completion) {
  downloadContent(file, std::move(completion), {});
}

void KivAPI::downloadContent(const KivFile& file, SuccessCompletion completion, TransferProgress progress) {
  if (!file.remoteUrl) return completion(false, invalidResponse(kMissingRemoteURL));
  // The content lands at the file's place in the media folder; a name that is no plain file name has none.
  if (!file.hasPlainFileName()) return completion(false, invalidResponse(kUnusableFileName));
  _publicInstance()->downloadRequest(
      *file.remoteUrl, true, "GET", {},
      [file, completion = std::move(completion)](const std::optional<zu::URL>& location,
                                                 const std::optional<zu::Error>& error) {
        detail::moveDownload(location, error, file.fileURL(), kMissingContent, completion);
      },
      std::move(progress));
}

}  // namespace kiv

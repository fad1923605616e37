// KivModel's preview images: the decoding paths and the cache they share.
#include <atomic>
#include <climits>
#include <cmath>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "KivSDK/Model/KivModel.hpp"
#include "KivSDK/Model/detail/PreviewDecoding.hpp"
#include "ZuFoundation/DispatchQueue.hpp"
#include "ZuFoundation/detail/Posix.hpp"
#include "ZuImage/Screen.hpp"

namespace kiv {
namespace {

/// Every preview made in this run, keyed by the file's local URL; never pruned. The lock makes it safe
/// for callers on several threads; it is never held while decoding or calling back.
class PreviewImages {
 public:
  std::optional<zu::Image> find(const zu::URL& url) {
    std::lock_guard lock(mutex_);
    const auto found = images_.find(url.absoluteString());
    if (found == images_.end()) return std::nullopt;
    return found->second;
  }
  void store(const zu::URL& url, const zu::Image& image) {
    std::lock_guard lock(mutex_);
    images_.insert_or_assign(url.absoluteString(), image);
  }

 private:
  std::mutex mutex_;
  std::map<std::string, zu::Image> images_;
};

PreviewImages& _previewImages() {
  // Never destroyed: a video's answer may still arrive while the process exits.
  static auto* images = new PreviewImages;
  return *images;
}

/// Where videos are decoded, one at a time, off the callers' threads.
zu::DispatchQueue& videoFrameQueue() {
  static auto* queue = new zu::DispatchQueue("com.zumbrel.kiv.preview-images");
  return *queue;
}

std::atomic<double>& previewSizeSetting() {
  static std::atomic<double> points = KivModel::Const::defaultPreviewSize;
  return points;
}

/// The longer side, in pixels, that previews are decoded for: the preview size on the main screen.
int previewPixels() {
  const double pixels = std::ceil(KivModel::previewSize() * zu::Screen::mainScale());
  if (!(pixels >= 1)) return 1;  // a scale that is not a positive number included
  return pixels < INT_MAX ? static_cast<int>(pixels) : INT_MAX;
}

/// The picture in the photo file at `path`, read whole; decoded as `detail::decodePhoto` does.
std::optional<zu::Image> photoOfFile(const std::string& path, std::optional<int> longerSide = std::nullopt,
                                     zu::Image::FullSizeDecoder decodeFullSize = {}) {
  const auto bytes = zu::detail::readWholeFile(path);
  if (!bytes) return std::nullopt;
  return detail::decodePhoto(*bytes, longerSide, std::move(decodeFullSize));
}

std::optional<zu::Image> photoPreview(const zu::URL& url) {
  const std::string path = url.path();
  auto image = photoOfFile(path, previewPixels(), [path] { return photoOfFile(path); });
  if (image) _previewImages().store(url, *image);
  return image;
}

/// Decodes the video's first frame on the preview queue and answers on the main queue.
void requestVideoPreview(const zu::URL& url, KivModel::PreviewCompletion completion) {
  videoFrameQueue().async([url, completion = std::move(completion)]() mutable {
    auto frame = detail::firstFrameOfVideo(url.path(), previewPixels());
    zu::DispatchQueue::main().async([url, frame = std::move(frame), completion = std::move(completion)] {
      if (!frame) return completion(std::nullopt);
      // The frame shows as the platform's video frames do: turned a quarter clockwise, at the screen's scale.
      const zu::Image image = frame->withScale(zu::Screen::mainScale(), zu::Image::Orientation::right);
      _previewImages().store(url, image);
      completion(image);
    });
  });
}

/// A synchronous answer: the picture, if any, is the return value and the completion receives nothing.
std::optional<zu::Image> answeredAtOnce(const KivModel::PreviewCompletion& completion,
                                        std::optional<zu::Image> image) {
  completion(std::nullopt);
  return image;
}

}  // namespace

double KivModel::previewSize() { return previewSizeSetting().load(); }

void KivModel::setPreviewSize(double points) { previewSizeSetting().store(points); }

std::optional<zu::Image> KivModel::getPreviewImage(const KivFile& file, PreviewCompletion completion) {
  const auto url = file.localFileLocation();
  if (!url) return answeredAtOnce(completion, std::nullopt);
  if (auto cached = _previewImages().find(*url)) return answeredAtOnce(completion, std::move(cached));
  switch (file.fileType) {
    case KivFile::FileType::image:
      return answeredAtOnce(completion, photoPreview(*url));
    case KivFile::FileType::video:
      requestVideoPreview(*url, std::move(completion));
      return std::nullopt;
    case KivFile::FileType::unknown:
      break;
  }
  return answeredAtOnce(completion, std::nullopt);
}

}  // namespace kiv

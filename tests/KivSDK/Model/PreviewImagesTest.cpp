#include <gtest/gtest.h>

#include <array>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "KivSDK/Model/KivModel.hpp"
#include "ZuFoundation/DispatchQueue.hpp"
#include "ZuGStreamer/detail/GStreamer.hpp"
#include "ZuImage/Screen.hpp"
#include "support/TemporaryDirectory.hpp"

namespace {

using kiv::KivFile;
using kiv::KivModel;
using testing_support::readFile;
using testing_support::ScopedApplicationData;
using testing_support::writeFile;
using zu::Image;

using Rgb = std::array<int, 3>;
constexpr Rgb kRed{255, 0, 0};
constexpr Rgb kGreen{0, 255, 0};
constexpr Rgb kBlue{0, 0, 255};

/// Runs a launch description to its end; whether it got there without an error.
bool runToEnd(const std::string& description) {
  auto pipeline = zu::detail::parseLaunch(description);
  if (!pipeline) return false;
  static_cast<void>(gst_element_set_state(pipeline->get(), GST_STATE_PLAYING));
  const zu::detail::GstBusHandle bus(gst_element_get_bus(pipeline->get()));
  const zu::detail::GstMessageHandle end(gst_bus_timed_pop_filtered(
      bus.get(), 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
  static_cast<void>(gst_element_set_state(pipeline->get(), GST_STATE_NULL));
  return end && GST_MESSAGE_TYPE(end.get()) == GST_MESSAGE_EOS;
}

/// `encoder` fed pictures of one `pattern` colour ("red"), 64 x 48, into the file of `file`.
KivFile makeMedia(const KivFile& file, const std::string& pattern, const std::string& encoder,
                  int pictures = 1) {
  EXPECT_TRUE(runToEnd("videotestsrc num-buffers=" + std::to_string(pictures) + " pattern=" + pattern +
                       " ! video/x-raw,format=I420,width=64,height=48,framerate=30/1 ! " + encoder +
                       " ! filesink location=\"" + file.fileURL().path() + "\""));
  return file;
}

KivFile jpegPhoto(const std::string& name, const std::string& pattern = "red") {
  return makeMedia(KivFile(name, "jpg", zu::Date(0)), pattern, "jpegenc");
}

KivFile mp4Video(const std::string& name, const std::string& pattern = "blue") {
  return makeMedia(KivFile(name, "mp4", zu::Date(0)), pattern, "x264enc ! mp4mux", 30);
}

/// An MP4 file of AAC sound, with pictures of `pattern` when `pattern` is given.
KivFile mp4WithSound(const std::string& name, std::optional<std::string> pattern) {
  KivFile file(name, "mp4", zu::Date(0));
  std::string description =
      "audiotestsrc num-buffers=20 ! avenc_aac ! mp4mux name=mux ! filesink location=\"" +
      file.fileURL().path() + "\"";
  if (pattern) {
    description += " videotestsrc num-buffers=30 pattern=" + *pattern +
                   " ! video/x-raw,format=I420,width=64,height=48,framerate=30/1 ! x264enc ! mux.";
  }
  EXPECT_TRUE(runToEnd(description));
  return file;
}

/// Previews are made for `points` on a screen of `scale` pixels per point while it lives.
class ScopedPreviewScreen {
 public:
  explicit ScopedPreviewScreen(double points, double scale = 1) {
    KivModel::setPreviewSize(points);
    zu::Screen::setMainScale(scale);
  }
  ~ScopedPreviewScreen() {
    KivModel::setPreviewSize(KivModel::Const::defaultPreviewSize);
    zu::Screen::setMainScale(1);
  }
  ScopedPreviewScreen(const ScopedPreviewScreen&) = delete;
  ScopedPreviewScreen& operator=(const ScopedPreviewScreen&) = delete;
};

/// The colour at the picture's centre matches `expected` give or take what lossy coding and the test
/// source's limited colour range change.
void expectCentre(const Image& image, const Rgb& expected) {
  ASSERT_FALSE(image.isEmpty());
  const auto centre = (static_cast<std::size_t>(image.height() / 2) * image.width() + image.width() / 2) * 4;
  for (std::size_t channel = 0; channel < 3; ++channel) {
    EXPECT_NEAR(image.rgba()[centre + channel], expected[channel], 32) << "channel " << channel;
  }
  EXPECT_EQ(image.rgba()[centre + 3], 255);
}

/// The colour at a point given as fractions of the picture's width and height.
Rgb colourAt(const Image& image, double x, double y) {
  const auto column = static_cast<std::size_t>(x * image.width());
  const auto row = static_cast<std::size_t>(y * image.height());
  const auto at = (row * static_cast<std::size_t>(image.width()) + column) * 4;
  return {image.rgba()[at], image.rgba()[at + 1], image.rgba()[at + 2]};
}

/// A reduced picture shows what its full size does: the colours of the test source's bars in their places,
/// give or take what lossy coding and scaling change.
void expectSamePicture(const Image& reduced, const Image& full) {
  for (const double bar : {0.5, 2.5, 4.5, 6.5}) {
    for (const double y : {0.3, 0.9}) {
      const Rgb shown = colourAt(reduced, bar / 7, y);
      const Rgb stored = colourAt(full, bar / 7, y);
      for (std::size_t channel = 0; channel < 3; ++channel) {
        EXPECT_NEAR(shown[channel], stored[channel], 40) << "bar " << bar << ", height " << y;
      }
    }
  }
}

/// One request's two answers: what it returned and what its completion received, on which thread.
class Request {
 public:
  explicit Request(const KivFile& file) {
    returned_ = KivModel::getPreviewImage(file, [this](std::optional<Image> image) {
      std::lock_guard lock(mutex_);
      completed_ = std::move(image);
      completionThread_ = std::this_thread::get_id();
      ++calls_;
      done_.notify_all();
    });
  }

  const std::optional<Image>& returned() const { return returned_; }
  /// Waits, with a generous bound, for the completion; what it received.
  std::optional<Image> completed() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(done_.wait_for(lock, std::chrono::seconds(60), [&] { return calls_ > 0; }));
    return completed_;
  }
  /// After `completed()`: the completion's thread, once every main-queue task posted so far has run.
  std::thread::id completionThread() {
    zu::DispatchQueue::main().drain();
    std::lock_guard lock(mutex_);
    EXPECT_EQ(calls_, 1);
    return completionThread_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  std::optional<Image> returned_;
  std::optional<Image> completed_;
  std::thread::id completionThread_;
  int calls_ = 0;
};

std::thread::id mainQueueThread() {
  std::thread::id thread;
  zu::DispatchQueue::main().sync([&] { thread = std::this_thread::get_id(); });
  return thread;
}

class PreviewImages : public testing::Test {
 protected:
  ScopedApplicationData data_;
};

struct PhotoCase {
  const char* ext;
  const char* pattern;
  const char* encoder;
  Rgb colour;
  /// The size of its preview at 20 points: JPEG photos decode in eighths of their 64 x 48 pixels.
  int previewWidth;
  int previewHeight;
};

class PhotoPreviews : public PreviewImages, public testing::WithParamInterface<PhotoCase> {};

TEST_P(PhotoPreviews, DecodeAtOnceAndComeFromTheCacheAfterwards) {
  const auto& param = GetParam();
  const KivFile photo = makeMedia(KivFile("photo", param.ext, zu::Date(0)), param.pattern, param.encoder);

  Request first(photo);
  ASSERT_TRUE(first.returned());
  EXPECT_EQ(first.returned()->width(), 64);
  EXPECT_EQ(first.returned()->height(), 48);
  EXPECT_EQ(first.returned()->scale(), 1);
  EXPECT_EQ(first.returned()->imageOrientation(), Image::Orientation::up);
  expectCentre(*first.returned(), param.colour);
  EXPECT_FALSE(first.completed());
  EXPECT_EQ(first.completionThread(), std::this_thread::get_id());

  // The file is not read again: its new bytes would not decode.
  writeFile(photo.fileURL().path(), "no longer a picture");
  Request second(photo);
  ASSERT_TRUE(second.returned());
  EXPECT_EQ(second.returned()->rgba().data(), first.returned()->rgba().data());
  EXPECT_FALSE(second.completed());
}

TEST_P(PhotoPreviews, DecodeAtThePreviewSizeAndAtFullSizeOnlyWhenAsked) {
  const auto& param = GetParam();
  const ScopedPreviewScreen screen(20);
  const KivFile photo = makeMedia(KivFile("photo", param.ext, zu::Date(0)), "smpte", param.encoder);

  const auto preview = Request(photo).returned();
  ASSERT_TRUE(preview);
  EXPECT_TRUE(preview->isReduced());
  EXPECT_EQ(preview->width(), param.previewWidth);
  EXPECT_EQ(preview->height(), param.previewHeight);
  EXPECT_EQ(preview->fullWidth(), 64);
  EXPECT_EQ(preview->fullHeight(), 48);
  EXPECT_EQ(preview->scale(), 1);
  const auto full = preview->atFullSize();
  ASSERT_TRUE(full);
  EXPECT_FALSE(full->isReduced());
  EXPECT_EQ(full->width(), 64);
  EXPECT_EQ(full->height(), 48);
  expectSamePicture(*preview, *full);

  // The full size is decoded from the file each time it is asked for; the cache keeps the preview alone.
  writeFile(photo.fileURL().path(), "no longer a picture");
  EXPECT_FALSE(preview->atFullSize());
  const auto cached = Request(photo).returned();
  ASSERT_TRUE(cached);
  EXPECT_EQ(cached->rgba().data(), preview->rgba().data());
}

INSTANTIATE_TEST_SUITE_P(Kinds, PhotoPreviews,
                         testing::Values(PhotoCase{"jpg", "red", "jpegenc", kRed, 24, 18},
                                         PhotoCase{"png", "green", "videoconvert ! pngenc", kGreen, 20, 15},
                                         PhotoCase{"webp", "blue", "webpenc", kBlue, 20, 15}));

TEST_F(PreviewImages, PhotosKeepTheirExifOrientation) {
  const KivFile turned = makeMedia(KivFile("turned", "jpeg", zu::Date(0)), "red",
                                   "jpegenc ! taginject tags=\"image-orientation=rotate-90\" ! jifmux");
  const auto image = Request(turned).returned();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->imageOrientation(), Image::Orientation::right);
  EXPECT_EQ(image->width(), 64);  // the pixels stay as stored
  expectCentre(*image, kRed);

  // A first directory that points past the end of its EXIF block: no orientation, the picture still shows.
  std::string bytes = readFile(turned.fileURL().path());
  const auto tiff = bytes.find("Exif") + 6;
  ASSERT_NE(tiff, std::string::npos + 6);
  bytes.replace(tiff + 4, 4, "\xff\xff\xff\xff");
  const KivFile damaged("damaged", "jpg", zu::Date(0));
  writeFile(damaged.fileURL().path(), bytes);
  const auto shown = Request(damaged).returned();
  ASSERT_TRUE(shown);
  EXPECT_EQ(shown->imageOrientation(), Image::Orientation::up);
  expectCentre(*shown, kRed);
}

TEST_F(PreviewImages, VideosAnswerOnTheMainQueueWithTheFirstFrameTurnedAndScaled) {
  const ScopedPreviewScreen screen(16, 2);  // 32 pixels
  const KivFile video = mp4Video("clip");

  Request first(video);
  EXPECT_FALSE(first.returned());
  const auto frame = first.completed();
  ASSERT_TRUE(frame);
  EXPECT_EQ(first.completionThread(), mainQueueThread());
  EXPECT_EQ(frame->width(), 32);
  EXPECT_EQ(frame->height(), 24);
  EXPECT_EQ(frame->scale(), 2);
  EXPECT_EQ(zu::rawValue(frame->imageOrientation()), 3);
  expectCentre(*frame, kBlue);
  const auto full = frame->atFullSize();
  ASSERT_TRUE(full);
  EXPECT_EQ(full->width(), 64);
  EXPECT_EQ(full->height(), 48);
  EXPECT_EQ(full->scale(), 2);
  EXPECT_EQ(zu::rawValue(full->imageOrientation()), 3);
  expectCentre(*full, kBlue);

  Request again(video);
  ASSERT_TRUE(again.returned());
  EXPECT_EQ(again.returned()->rgba().data(), frame->rgba().data());
  EXPECT_FALSE(again.completed());
  EXPECT_EQ(again.completionThread(), std::this_thread::get_id());
}

TEST_F(PreviewImages, VideosWithSoundGiveTheirPicture) {
  const auto frame = Request(mp4WithSound("clip", "red")).completed();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->width(), 64);
  expectCentre(*frame, kRed);
}

TEST_F(PreviewImages, TwoEarlyRequestsForOneVideoBothReceiveTheFrame) {
  const KivFile video = mp4Video("clip", "green");
  Request first(video);
  Request second(video);
  EXPECT_FALSE(first.returned());
  EXPECT_FALSE(second.returned());
  for (Request* request : {&first, &second}) {
    const auto frame = request->completed();
    ASSERT_TRUE(frame);
    expectCentre(*frame, kGreen);
  }
  const auto cached = Request(video).returned();
  ASSERT_TRUE(cached);
  expectCentre(*cached, kGreen);
}

/// A file that yields nothing: its name and extension, and what stands in its place.
struct NothingCase {
  const char* name;
  const char* ext;
  enum Bytes { missing, empty, text, jpegCutShort, mp4CutShort, soundOnly, validJpeg } bytes;
};

class NoPreview : public PreviewImages, public testing::WithParamInterface<NothingCase> {
 protected:
  /// The file of the case, its bytes in place.
  KivFile file() {
    const auto& param = GetParam();
    KivFile file(param.name, param.ext, zu::Date(0));
    const std::string path = file.fileURL().path();
    const auto cutShort = [&](const KivFile& made) {
      const std::string bytes = readFile(made.fileURL().path());
      writeFile(path, bytes.substr(0, bytes.size() / 2));
    };
    switch (param.bytes) {
      case NothingCase::missing:
        break;
      case NothingCase::empty:
        writeFile(path, "");
        break;
      case NothingCase::text:
        writeFile(path, "Evidence, not media\n");
        break;
      case NothingCase::jpegCutShort:
        cutShort(jpegPhoto("whole"));
        break;
      case NothingCase::mp4CutShort:
        cutShort(mp4Video("whole"));
        break;
      case NothingCase::soundOnly:
        mp4WithSound(param.name, std::nullopt);
        break;
      case NothingCase::validJpeg:
        writeFile(path, readFile(jpegPhoto("whole").fileURL().path()));
        break;
    }
    return file;
  }
};

TEST_P(NoPreview, NothingThroughEitherChannelAndNothingKept) {
  const KivFile unfit = file();
  for (int attempt = 0; attempt < 2; ++attempt) {
    Request request(unfit);
    EXPECT_FALSE(request.returned());
    EXPECT_FALSE(request.completed());
    const bool video = unfit.fileType == KivFile::FileType::video && unfit.hasLocalFile();
    EXPECT_EQ(request.completionThread(), video ? mainQueueThread() : std::this_thread::get_id());
  }
}

INSTANTIATE_TEST_SUITE_P(Files, NoPreview,
                         testing::Values(NothingCase{"gone", "jpg", NothingCase::missing},
                                         NothingCase{"gone", "mov", NothingCase::missing},
                                         NothingCase{"empty", "png", NothingCase::empty},
                                         NothingCase{"empty", "mp4", NothingCase::empty},
                                         NothingCase{"text", "jpg", NothingCase::text},
                                         NothingCase{"text", "mkv", NothingCase::text},
                                         NothingCase{"cut", "jpg", NothingCase::jpegCutShort},
                                         NothingCase{"cut", "mp4", NothingCase::mp4CutShort},
                                         NothingCase{"sound", "mp4", NothingCase::soundOnly},
                                         NothingCase{"photo", "txt", NothingCase::validJpeg}),
                         [](const testing::TestParamInfo<NothingCase>& test) {
                           return std::string(test.param.name) + "_" + test.param.ext;
                         });

}  // namespace

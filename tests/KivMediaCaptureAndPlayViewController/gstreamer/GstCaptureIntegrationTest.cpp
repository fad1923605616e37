// The capture screen on the real camera and player: the synthetic camera, GStreamer, offscreen Qt.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QImage>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>

#include "KivMediaCaptureAndPlayViewController/core/LocalizedStrings.hpp"
#include "ZuGStreamer/ZuGStreamer.hpp"
#include "support/GstCaptureWidget.hpp"

namespace {

using namespace testing_support;
using Pinch = zu::PinchGestureRecognizer::State;

constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr double kFrame = 1.0 / 30;

zu::GstCaptureDevice::Settings syntheticCamera() {
  return {.synthetic = true, .width = kWidth, .height = kHeight, .framesPerSecond = 30};
}

/// The capture screen on the synthetic camera.
class SyntheticScreen : public GstCaptureWidget {
 public:
  explicit SyntheticScreen(const Options& options) : GstCaptureWidget(syntheticCamera(), options) {}
};

/// What ffprobe, a reader of its own, finds in a media file: "codec_name", "pix_fmt" and "duration" values.
std::multimap<std::string, std::string> probe(const std::string& path) {
  const std::string command =
      "ffprobe -v error -show_entries stream=codec_name,pix_fmt:format=duration "
      "-of default=noprint_wrappers=1 '" +
      path + "'";
  std::multimap<std::string, std::string> found;
  FILE* output = ::popen(command.c_str(), "r");
  if (!output) return found;
  char line[256];
  while (std::fgets(line, sizeof line, output)) {
    const std::string text(line, std::strcspn(line, "\n"));
    if (const auto equals = text.find('='); equals != std::string::npos)
      found.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  static_cast<void>(::pclose(output));
  return found;
}

/// The grey level of the image's brightest pixel.
int brightestGrey(const QImage& image) {
  int brightest = 0;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) brightest = std::max(brightest, qGray(image.pixel(x, y)));
  }
  return brightest;
}

/// A one-second H.264 MP4 made without the screen, to break.
std::string clipBytes(const TemporaryDirectory& folder) {
  const std::string path = (folder.path() / "clip.mp4").string();
  auto pipeline = zu::detail::parseLaunch(
      "videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240,framerate=30/1 ! x264enc ! mp4mux "
      "! filesink name=file");
  EXPECT_TRUE(pipeline);
  g_object_set(zu::detail::childByName(pipeline->get(), "file").get(), "location", path.c_str(), nullptr);
  gst_element_set_state(pipeline->get(), GST_STATE_PLAYING);
  const zu::detail::GstBusHandle bus(gst_element_get_bus(pipeline->get()));
  const zu::detail::GstMessageHandle end(gst_bus_timed_pop_filtered(
      bus.get(), 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
  gst_element_set_state(pipeline->get(), GST_STATE_NULL);
  EXPECT_TRUE(end && GST_MESSAGE_TYPE(end.get()) == GST_MESSAGE_EOS);
  return readFile(path);
}

TEST(GstCaptureScreen, TakesAPhotoOfThePreviewsSize) {
  SyntheticScreen screen({.defaultMediaType = MediaType::photo});
  ASSERT_TRUE(screen.showAndWaitForCamera());
  const zu::Image& preview = screen.controller()._mediaPreviewView.previewLayer->frame;
  EXPECT_EQ(preview.width(), kWidth);
  EXPECT_EQ(preview.height(), kHeight);
  EXPECT_FALSE(screen.screenshot("gstreamer-preview").isNull());

  screen.click("mainControlButton");
  ASSERT_TRUE(screen.waitForState(State::imageDisplay));
  const zu::URL photo = *screen.controller().fileURL();
  EXPECT_TRUE(std::regex_match(photo.lastPathComponent(), std::regex(R"(\d{8}_\d{6}\.jpg)")));
  EXPECT_EQ(photo.path(), screen.folderURL().appendingPathComponent(photo.lastPathComponent()).path());
  const QImage decoded(QString::fromStdString(photo.path()), "JPEG");
  EXPECT_EQ(decoded.size(), QSize(kWidth, kHeight));
  // The test pattern's white bars stay white: the photo keeps the preview's full range of levels.
  EXPECT_GE(brightestGrey(decoded), 250);
  EXPECT_FALSE(screen.screenshot("gstreamer-photo").isNull());
}

TEST(GstCaptureScreen, RecordsThreeSecondsPlaysThemToTheEndAndDeletesThemWithConsent) {
  SyntheticScreen screen({});
  ASSERT_TRUE(screen.showAndWaitForCamera());
  screen.click("mainControlButton");
  ASSERT_TRUE(screen.waitForState(State::recording));
  ASSERT_TRUE(screen.waitUntil([&] { return screen.device->recordedDuration() >= 3; }));
  screen.click("mainControlButton");
  ASSERT_TRUE(screen.waitForState(State::readyToPlayback));

  // The file holds what the time label counted: 3 seconds, give or take a picture or two.
  const double recorded = screen.device->recordedDuration();
  const std::string video = screen.controller().fileURL()->path();
  const auto found = probe(video);
  std::set<std::string> codecs;
  for (auto [at, end] = found.equal_range("codec_name"); at != end; ++at) codecs.insert(at->second);
  EXPECT_EQ(codecs, (std::set<std::string>{"aac", "h264"}));
  EXPECT_EQ(found.find("pix_fmt")->second, "yuv420p");
  ASSERT_EQ(found.count("duration"), 1U) << video;
  const double duration = std::stod(found.find("duration")->second);
  EXPECT_NEAR(duration, recorded, 2 * kFrame);
  EXPECT_GE(duration, 3 - 2 * kFrame);

  screen.click("mainControlButton");
  ASSERT_TRUE(screen.waitForState(State::playing));
  ASSERT_TRUE(screen.waitUntil([&] { return !screen.playerFrame().isEmpty(); }));
  EXPECT_EQ(screen.playerFrame().width(), kWidth);
  EXPECT_FALSE(screen.screenshot("gstreamer-playback").isNull());
  ASSERT_TRUE(screen.waitForState(State::ended));
  EXPECT_TRUE(screen.controller()._timeLabel.text == "00:00:03" ||
              screen.controller()._timeLabel.text == "00:00:02")
      << screen.controller()._timeLabel.text;

  screen.click("trashButton");
  ASSERT_TRUE(screen.waitForState(State::readyToCapture));
  EXPECT_FALSE(zu::ZuFileManager::fileExists(zu::URL::fileURLWithPath(video)));
  ASSERT_EQ(screen.delegate.deleted.size(), 1U);
  EXPECT_EQ(screen.delegate.deleted[0].path(), video);
  EXPECT_EQ(screen.delegate.deletionQuestions.size(), 1U);
}

TEST(GstCaptureScreen, PinchZoomIsClampedAndTheSyntheticCameraHasNoTorch) {
  SyntheticScreen screen({});
  ASSERT_TRUE(screen.showAndWaitForCamera());
  EXPECT_FALSE(screen.device->hasTorch());
  screen.click("flashButton");
  EXPECT_TRUE(screen.controller().flashOn());

  screen.pinch(Pinch::began, 1);
  screen.pinch(Pinch::changed, 100);
  EXPECT_EQ(screen.device->videoZoomFactor(), zu::GstCaptureDevice::maxDigitalZoomFactor);
  screen.pinch(Pinch::ended, 100);
  // The zoomed camera keeps sending whole pictures.
  const auto& preview = screen.controller()._mediaPreviewView.previewLayer;
  const auto pixels = preview->frame.sharedPixels();
  ASSERT_TRUE(screen.waitUntil([&] { return preview->frame.sharedPixels() != pixels; }));
  EXPECT_EQ(preview->frame.width(), kWidth);
  EXPECT_EQ(preview->frame.height(), kHeight);

  screen.pinch(Pinch::began, 1);
  screen.pinch(Pinch::changed, 0.01);
  EXPECT_EQ(screen.device->videoZoomFactor(), 1);
}

struct UnplayableFile {
  const char* name;
  /// The file's bytes from a good clip; none: the file does not exist.
  std::function<std::optional<std::string>(const std::string& clip)> bytes;
};

class GstReview : public testing::TestWithParam<UnplayableFile> {};

TEST_P(GstReview, AFileThatCannotBePlayedReturnsToCapture) {
  const TemporaryDirectory scratch;
  SyntheticScreen screen(
      {.fileName = "evidence.mp4", .fileBytes = GetParam().bytes(clipBytes(scratch)), .autoplay = true});
  screen.widget->show();
  ASSERT_TRUE(screen.waitForState(State::readyToCapture)) << static_cast<int>(screen.controller().state());
  EXPECT_FALSE(screen.controller().fileURL());
  EXPECT_TRUE(screen.delegate.failures.empty());
  EXPECT_TRUE(screen.waitUntil([&] { return screen.controller()._mainControlButton.isEnabled; }));
}

INSTANTIATE_TEST_SUITE_P(
    Files, GstReview,
    testing::Values(
        UnplayableFile{"notMedia",
                       [](const std::string&) { return std::string("These are not pictures.\n"); }},
        UnplayableFile{"truncated", [](const std::string& clip) { return clip.substr(0, clip.size() / 2); }},
        UnplayableFile{"missing", [](const std::string&) { return std::nullopt; }}),
    [](const testing::TestParamInfo<UnplayableFile>& row) { return std::string(row.param.name); });

TEST(GstCaptureDevice, WithoutACameraTheSetUpFailsUnlessTheSyntheticCameraMayStandIn) {
  const TemporaryDirectory devices;
  writeFile(devices.path() / "video0", "a node that is no camera");
  zu::GstCaptureDevice::Settings settings = syntheticCamera();
  settings.synthetic = false;
  settings.deviceDirectory = devices.path().string();

  zu::GstCaptureDevice none(settings);
  EXPECT_EQ(none.authorizationStatus(), zu::CaptureAuthorizationStatus::authorized);
  const auto failed = none.setupSession();
  EXPECT_EQ(failed.state, zu::CaptureSessionState::error);
  ASSERT_TRUE(failed.error);
  EXPECT_EQ(failed.error->errorDescription(),
            zu::localizedCaptureString("NoBackWideAngleCameraErrorDescription"));

  settings.allowsSyntheticCamera = true;
  zu::GstCaptureDevice standIn(settings);
  EXPECT_EQ(standIn.setupSession().state, zu::CaptureSessionState::running);
  EXPECT_TRUE(standIn.isRunning());
}

TEST(GstCaptureDevice, ACameraNodeThatCannotBeOpenedIsNotAuthorised) {
  if (::geteuid() == 0) GTEST_SKIP() << "permissions do not stop the super-user";
  const TemporaryDirectory devices;
  const auto node = devices.path() / "video0";
  writeFile(node, "");
  ASSERT_EQ(::chmod(node.c_str(), 0), 0);
  zu::GstCaptureDevice::Settings settings = syntheticCamera();
  settings.synthetic = false;
  settings.allowsSyntheticCamera = true;
  settings.deviceDirectory = devices.path().string();

  zu::GstCaptureDevice camera(settings);
  EXPECT_EQ(camera.authorizationStatus(), zu::CaptureAuthorizationStatus::denied);
  bool granted = true;
  camera.requestAccess([&](bool answer) { granted = answer; });
  EXPECT_FALSE(granted);
  EXPECT_EQ(camera.setupSession().error, zu::SetupError::cameraAccessDenied());
}

}  // namespace

// Measures the capture screen on the synthetic camera at 1280x720, 30 pictures a second, driven like a user
// through the Qt view on the offscreen platform; run.sh beside it runs the recorder's encoders under
// gst-launch-1.0 in the same run.
//
// capture_bench photo <count>
//     photos one after another: the control press to the photo file written and on screen
// capture_bench record <seconds> <file>
//     the preview alone for that long, then a recording of that length, copied to <file>: the process's CPU
//     in each (1.0 is one core busy)
// capture_bench playback <count> <file>
//     reviews of <file>: entering readyToPlayback to its first picture on screen
// capture_bench reference <seconds> <file>
//     the launch description of the same camera and encoders writing that long into <file>, for
//     gst-launch-1.0
//
// Prints "key=value" lines; times in milliseconds.
#include <QApplication>
#include <QElapsedTimer>
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/CameraPipeline.hpp"
#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/Recorder.hpp"
#include "KivMediaCaptureAndPlayViewController/qt/QtCapturePlatform.hpp"
#include "ProcessFigures.hpp"
#include "support/GstCaptureWidget.hpp"

namespace {

using testing_support::CaptureWidgetHarness;
using testing_support::GstCaptureWidget;
using testing_support::MediaType;
using testing_support::State;

constexpr zu::detail::CameraSource kSynthetic{.devicePath = std::nullopt,
                                              .microphone = std::nullopt,
                                              .width = 1280,
                                              .height = 720,
                                              .framesPerSecond = 30};

/// The screen on the synthetic camera.
class SyntheticScreen : public GstCaptureWidget {
 public:
  explicit SyntheticScreen(const Options& options)
      : GstCaptureWidget({.synthetic = true,
                          .width = kSynthetic.width,
                          .height = kSynthetic.height,
                          .framesPerSecond = kSynthetic.framesPerSecond},
                         options) {}
};

/// The CPU share of this process while `work` runs: CPU seconds per second.
template <class Work>
double cpuShareOf(const Work& work) {
  QElapsedTimer wall;
  wall.start();
  const double before = benchfigures::cpuSeconds();
  work();
  return (benchfigures::cpuSeconds() - before) / (static_cast<double>(wall.nsecsElapsed()) / 1e9);
}

void printMilliseconds(const std::string& key, std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  std::cout << key << "_median_ms=" << samples[samples.size() / 2] << "\n"
            << key << "_worst_ms=" << samples.back() << "\n";
}

bool wait(const std::function<bool()>& condition, const char* what) {
  if (CaptureWidgetHarness::waitUntil(condition)) return true;
  std::cerr << "capture_bench: no " << what << " within 30 seconds\n";
  return false;
}

int photos(int count) {
  SyntheticScreen camera({.defaultMediaType = MediaType::photo});
  if (!camera.showAndWaitForCamera()) return 1;
  std::vector<double> samples;
  for (int i = 0; i < count; ++i) {
    QElapsedTimer pressed;
    pressed.start();
    camera.click("mainControlButton");
    if (!wait([&] { return camera.controller().state() == State::imageDisplay; }, "photo")) return 1;
    samples.push_back(static_cast<double>(pressed.nsecsElapsed()) / 1e6);
    camera.click("trashButton");
    if (!wait([&] { return camera.controller()._mainControlButton.isEnabled; }, "camera")) return 1;
  }
  printMilliseconds("photo", samples);
  return 0;
}

int record(int seconds, const std::string& copy) {
  SyntheticScreen camera({});
  if (!camera.showAndWaitForCamera()) return 1;
  const auto& controller = camera.controller();
  QElapsedTimer shown;
  const double preview = cpuShareOf([&] {
    shown.start();
    CaptureWidgetHarness::waitUntil([&] { return shown.elapsed() >= qint64{seconds} * 1000; });
  });
  camera.click("mainControlButton");  // recording starts at once
  bool recorded = false;
  const double recording = cpuShareOf([&] {
    recorded = wait([&] { return camera.device->recordedDuration() >= seconds; }, "recorded time");
    camera.click("mainControlButton");
    recorded = recorded && wait([&] { return controller.state() == State::readyToPlayback; }, "video");
  });
  if (!recorded) return 1;
  std::filesystem::copy_file(controller.fileURL()->path(), copy,
                             std::filesystem::copy_options::overwrite_existing);
  std::cout << "preview_cpu=" << preview << "\nrecording_cpu=" << recording << "\n";
  return 0;
}

int playbacks(int count, const std::string& file) {
  const std::string bytes = testing_support::readFile(file);
  std::vector<double> samples;
  for (int i = 0; i < count; ++i) {
    SyntheticScreen review({.fileName = "review.mp4", .fileBytes = bytes});
    QElapsedTimer shown;
    shown.start();
    review.widget->show();  // enters readyToPlayback
    if (!wait([&] { return !review.playerFrame().isEmpty(); }, "first picture")) return 1;
    samples.push_back(static_cast<double>(shown.nsecsElapsed()) / 1e6);
  }
  printMilliseconds("first_picture", samples);
  return 0;
}

/// `description` with the element called `name` ending after `count` buffers.
std::string endingAfter(std::string description, const std::string& name, int count) {
  const std::string element = "name=" + name;
  return description.insert(description.find(element) + element.size(),
                            " num-buffers=" + std::to_string(count));
}

int reference(int seconds, const std::string& file) {
  using zu::detail::CameraPipeline;
  using zu::detail::Recorder;
  // The sources end by themselves (pictures of 1/30 s, sound buffers of 10 ms), so the muxer completes the
  // file.
  std::cout << endingAfter(CameraPipeline::picturesDescription(kSynthetic), "camera", seconds * 30) << " ! "
            << Recorder::videoEncoderDescription << " ! mp4mux name=mux ! filesink location=" << file << " "
            << endingAfter(CameraPipeline::soundDescription(kSynthetic), "microphone", seconds * 100) << " ! "
            << Recorder::audioEncoderDescription << " ! mux.\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const auto number = [&](std::size_t at) { return std::stoi(arguments.at(at)); };
  if (arguments.size() == 3 && arguments[0] == "reference") return reference(number(1), arguments[2]);
  QApplication application(argc, argv);
  zu::installQtMainDispatcher();
  if (arguments.size() == 2 && arguments[0] == "photo") return photos(number(1));
  if (arguments.size() == 3 && arguments[0] == "record") return record(number(1), arguments[2]);
  if (arguments.size() == 3 && arguments[0] == "playback") return playbacks(number(1), arguments[2]);
  std::cerr << "usage: capture_bench photo COUNT | record SECONDS FILE | playback COUNT FILE | reference "
               "SECONDS FILE\n";
  return 2;
}

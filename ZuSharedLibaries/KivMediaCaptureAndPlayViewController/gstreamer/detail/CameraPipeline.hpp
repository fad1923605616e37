#pragma once

#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ZuFoundation/Error.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuGStreamer/BusWatch.hpp"
#include "ZuGStreamer/GstHandles.hpp"

namespace zu::detail {

/// What a camera pipeline is made of.
struct CameraSource {
  /// The V4L2 device node; none for the synthetic camera (a moving test picture with a clock, and a tone).
  std::optional<std::string> devicePath;
  /// The element that reads the microphone ("pulsesrc", "alsasrc"); none for no sound. The synthetic camera
  /// always has its tone.
  std::optional<std::string> microphone;
  int width = 1280;
  int height = 720;
  int framesPerSecond = 30;
};

/// A part of a camera pipeline added and removed while it runs (a recording), with its own messages.
struct PipelineBranch {
  GstElement* bin = nullptr;
  /// An error inside the branch, on the thread that posts it (see `BusWatch`).
  std::function<void(GstMessage*)> onError;
  /// Every message from inside the branch, on the bus thread.
  std::function<void(GstMessage*)> onMessage;
};

/**
 * One live camera pipeline: the camera (with the microphone, when there is one) into tees, a preview branch
 * into an application sink, and a digital zoom. Its tees ("videotee", "audiotee") feed branches added while
 * it runs. Errors of the pipeline itself end its run; errors inside a branch go to that branch only.
 *
 * @par Thread Safety
 * `start` and `stop` are called on one thread at a time and block; every other operation may be called
 * from any thread. The sample and failure handlers run on GStreamer's threads.
 */
class CameraPipeline {
 public:
  using SampleHandler = std::function<void(GstSample* sample)>;
  using FailureHandler = std::function<void(const Error& error)>;

  /// The time `start` waits for the first picture of a camera that neither sends one nor fails.
  static constexpr std::chrono::seconds firstPictureTimeout{20};

  /**
   * The camera's pictures in launch syntax, up to where the pipeline branches: a V4L2 camera's pictures
   * decoded if need be and scaled to the pipeline's size and rate, or the synthetic camera's moving bars
   * with the time of day; then the digital zoom.
   */
  static std::string picturesDescription(const CameraSource& source);
  /// The sound in launch syntax, up to where the pipeline branches: the microphone, or the synthetic
  /// camera's quiet tone. Buffers of 10 ms let a recording end within 10 ms of its last picture.
  static std::string soundDescription(const CameraSource& source);
  /// The element that reads the default microphone ("pulsesrc" or "alsasrc"), when one can be opened.
  static std::optional<std::string> defaultMicrophone();
  /// Fails with the missing-plugin error of an element the camera's pictures need, when one is not installed.
  static Result<void> requireVideoElements(const CameraSource& source);
  /// The same for the sound.
  static Result<void> requireAudioElements(const CameraSource& source);

  /**
   * A pipeline for `source`, stopped. `onSample` receives every preview picture (RGBA, full size);
   * `onFailure` the error that ended a run.
   */
  static Result<std::unique_ptr<CameraPipeline>> make(const CameraSource& source, SampleHandler onSample,
                                                      FailureHandler onFailure);
  ~CameraPipeline();
  CameraPipeline(const CameraPipeline&) = delete;
  CameraPipeline& operator=(const CameraPipeline&) = delete;

  /// Runs the pipeline and waits for its first picture (or its failure, or `firstPictureTimeout`).
  Result<void> start();
  void stop();
  bool isRunning() const;

  GstElement* pipeline() const { return pipeline_.get(); }
  GstElement* videoTee() const { return videoTee_.get(); }
  /// Nothing when the pipeline has no sound.
  GstElement* audioTee() const { return audioTee_.get(); }
  /// The newest preview picture; none before the first.
  GstSampleHandle latestSample() const;

  /// Crops the pictures to their middle `1 / factor` and scales them back to full size (factor 1: whole).
  void setDigitalZoom(double factor);

  /// Routes the messages of `branch` to it until `removeBranch`. One branch at a time.
  void addBranch(PipelineBranch branch);
  void removeBranch();

 private:
  CameraPipeline(GstElementHandle pipeline, const CameraSource& source, SampleHandler onSample,
                 FailureHandler onFailure);
  static GstFlowReturn newSample(GstElement* sink, gpointer self);
  void messagePosted(GstMessage* message);
  void handleMessage(GstMessage* message);
  /// The branch when `message` comes from inside it.
  std::optional<PipelineBranch> branchOf(GstMessage* message) const;

  const GstElementHandle pipeline_;
  const GstElementHandle videoTee_;
  const GstElementHandle audioTee_;
  const GstElementHandle zoomCrop_;
  const CameraSource source_;
  const SampleHandler onSample_;
  const FailureHandler onFailure_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  GstSampleHandle latestSample_;
  bool running_ = false;
  std::optional<Error> failure_;
  std::optional<PipelineBranch> branch_;
  std::unique_ptr<BusWatch> busWatch_;
};

}  // namespace zu::detail

#pragma once

#include <gst/gst.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/CameraPipeline.hpp"
#include "ZuFoundation/Result.hpp"
#include "ZuGStreamer/GstHandles.hpp"

namespace zu::detail {

/**
 * One recording: a branch of a running camera pipeline that encodes what passes its tees from the moment
 * it starts to the moment it is stopped into an MP4 file: H.264 video (4:2:0, so that every player reads
 * it) and, when the pipeline has sound, AAC audio. The camera and its preview run on untouched: the
 * branch is attached to the tees while they run, and at the end only the branch receives the end of
 * stream; once the muxer has written the file the branch is detached.
 *
 * The recording holds exactly the pictures and sound whose capture times lie between the start and the
 * stop, wherever they were in the pipeline at those moments.
 *
 * @par Thread Safety
 * `stop`, `isRecording` and `duration` may be called from any thread; the completion runs once, on the
 * pipeline's bus thread (or inside `finish`).
 */
class Recorder {
 public:
  using Completion = std::function<void(std::optional<Error> error)>;

  /// The encoder settings, in GStreamer's launch syntax; the benchmark runs the same ones.
  static const char* const videoEncoderDescription;
  static const char* const audioEncoderDescription;

  /// Fails with the missing-plugin error of an element recordings need, when one is not installed.
  static Result<void> requireElements();

  /// A recording into the file at `path` that calls `done` when the file is complete or has failed.
  Recorder(CameraPipeline& pipeline, std::string path, Completion done);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// Attaches the branch and records from now on; on failure nothing stays attached and `done` is not
  /// called.
  Result<void> start();
  /// Ends the recording at the capture time now; `done` follows once the file is complete.
  void stop();
  /**
   * Ends the recording now, for a pipeline that is about to stop: the branch gets the end of stream at
   * once and has `timeout` to complete the file, after which it fails. Returns when `done` has run.
   */
  void finish(std::chrono::milliseconds timeout);
  /// Fails the recording with `error` (the camera stopped under it).
  void fail(const Error& error);
  /// Started and not yet complete.
  bool isRecording() const;
  /// Seconds of pictures recorded so far.
  double duration() const;

 private:
  /// One of the two inputs of the branch and the tee pad that feeds it.
  struct Input {
    Recorder* recorder = nullptr;
    GstElement* tee = nullptr;
    GstPadHandle teePad;
    GstPadHandle sinkPad;
    bool isVideo = false;
    /// Set on the streaming thread once the input has had its end of stream.
    std::atomic<bool> ended = false;
  };

  static GstPadProbeReturn onBuffer(GstPad* pad, GstPadProbeInfo* info, gpointer input);
  GstPadProbeReturn pass(Input& input, GstBuffer* buffer);
  /// Links `tee` to the branch's queue called `queueName`, through a ghost pad of that name.
  Result<void> attach(Input& input, GstElement* tee, const char* queueName);
  /// Sends the end of stream into the input, once.
  void endInput(Input& input);
  /// An element of the branch has failed (on the posting thread).
  void failed(GstMessage* message);
  void handleMessage(GstMessage* message);
  /// Detaches the branch and calls the completion, the first time only.
  void complete(std::optional<Error> error);
  void detach();

  CameraPipeline& pipeline_;
  const std::string path_;
  Completion done_;
  GstElementHandle bin_;
  std::array<Input, 2> inputs_;
  GstClockTime startTime_ = 0;
  std::atomic<GstClockTime> stopTime_ = GST_CLOCK_TIME_NONE;
  /// Set on the posting thread when an element of the branch fails, so the tees stop feeding it at once.
  std::atomic<bool> failed_ = false;
  std::atomic<GstClockTime> firstPicture_ = GST_CLOCK_TIME_NONE;
  std::atomic<GstClockTime> pictureEnd_ = GST_CLOCK_TIME_NONE;

  mutable std::mutex mutex_;
  std::condition_variable completed_;
  std::optional<Error> branchError_;
  bool recording_ = false;
  /// The completion is running.
  bool completing_ = false;
  bool attached_ = false;
};

}  // namespace zu::detail

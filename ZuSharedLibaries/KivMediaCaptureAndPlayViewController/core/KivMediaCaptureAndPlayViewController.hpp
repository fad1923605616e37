#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "KivMediaCaptureAndPlayViewController/core/BottomControlsVisibility.hpp"
#include "KivMediaCaptureAndPlayViewController/core/CapturePlatform.hpp"
#include "KivMediaCaptureAndPlayViewController/core/SetupError.hpp"
#include "KivMediaCaptureAndPlayViewController/core/ViewModel.hpp"
#include "ZuFoundation/DispatchQueue.hpp"
#include "ZuFoundation/RawValue.hpp"
#include "ZuFoundation/URL.hpp"

namespace zu {

class KivMediaCaptureAndPlayViewControllerDelegate;

/**
 * The full-screen capture-and-review screen: takes one photo (".jpg") or one video (".mp4") into a folder,
 * or reviews a file taken before, and tells its delegate how it ended. Without a toolkit: its views are the
 * plain values below, which a toolkit view (the Qt one in `qt/`) mirrors and whose presses it forwards.
 *
 * A screen made without a file opens for capture in `defaultMediaType`; one made with a file opens in
 * review, as a photo or a video by the file's extension. The toolkit view calls `viewDidLoad` once, then
 * `viewDidAppear` when the screen shows and `viewWillDisappear` before it goes. When the screen is destroyed
 * a recording under way stops and the camera session stops.
 *
 * A recording that ends with an error, or a photo that cannot be taken or written, is logged and leaves the
 * screen ready to capture again; the host is not told.
 *
 * @code
 * zu::KivMediaCaptureAndPlayViewController screen(host, mediaFolder, std::nullopt, false, platform);
 * screen.defaultMediaType = zu::KivMediaCaptureAndPlayViewController::MediaType::photo;
 * // hand it to the toolkit view; the host hears back through its delegate
 * @endcode
 *
 * @par Thread Safety
 * Everything runs on the main thread: the screen's operations must be called there, and the delegate and
 * the toolkit view are called there. Session set-up, start and stop run on the session queue; results come
 * back through the main queue. The screen must be destroyed on the main thread; work still under way is
 * then dropped. The host may destroy the screen inside `didDismissWith` and `didFailWith` (the last thing the
 * screen does in that turn), not inside the other delegate operations.
 */
class KivMediaCaptureAndPlayViewController {
 public:
  /// Why the screen closed. The screen itself sends `save` and `close`; set-up failures and denied camera
  /// access reach the host through `didFailWith`, and a host may use the other two when it closes the screen.
  enum class DismissReason {
    save = 0,
    close = 1,
    errorSettingUpMediaCapture = 2,
    userNotAllowedToUseCamera = 3
  };
  enum class MediaType { video = 0, photo = 1 };
  enum class _UIState {
    disabled = 0,
    readyToCapture = 1,
    recording = 2,
    readyToPlayback = 3,
    playing = 4,
    paused = 5,
    ended = 6,
    imageDisplay = 7,
  };
  /// The buttons' tags.
  enum class _ButtonType { dismiss = 0, control = 1, trash = 2, flash = 3, confirm = 4 };
  /// What the main control button does now.
  enum class _ControlButtonType { record = 0, stop = 1, play = 2, pause = 3, replay = 4, photo = 5 };
  using _SessionState = CaptureSessionState;
  using _BottomControlsVisibility = BottomControlsVisibility;
  using SetupError = zu::SetupError;

  struct _Const {
    struct Values {
      /// How often the time label follows a recording or a playback, in seconds.
      static constexpr double timeDisplayTimerInterval = 0.33;
      static constexpr double minimumVideoZoomFactor = 1.0;
      static constexpr float torchLevel = 1.0F;
    };
  };

  /// The image asset of the main button in a role ("GlimmoRecordButton", ...).
  static std::string imageName(_ControlButtonType type);
  /// The image asset of the flash button: "GlimmoFlashButton" when on, "GlimmoFlashOffButton" when off.
  static std::string flashImageName(bool flashOn);

  /**
   * A screen that writes new captures into `directory`, or reviews `fileURL` when given (`autoplay` plays
   * a video once at once). `delegate` must outlive the screen. The platform's device, player, timer source
   * and image decoder are required (a missing one stops the program).
   */
  KivMediaCaptureAndPlayViewController(KivMediaCaptureAndPlayViewControllerDelegate& delegate, URL directory,
                                       std::optional<URL> fileURL, bool autoplay, CapturePlatform platform);
  ~KivMediaCaptureAndPlayViewController();
  KivMediaCaptureAndPlayViewController(const KivMediaCaptureAndPlayViewController&) = delete;
  KivMediaCaptureAndPlayViewController& operator=(const KivMediaCaptureAndPlayViewController&) = delete;

  /// The capture mode when the screen opens without a file.
  MediaType defaultMediaType = MediaType::video;

  /// The toolkit view told about changes of the view model; null for none.
  void setView(CaptureScreenView* view) { _view = view; }

  void viewDidLoad();
  void viewDidAppear();
  void viewWillDisappear();
  /// The screen covers the status bar (on Linux: a frameless full-screen window).
  bool prefersStatusBarHidden() const { return true; }

  /// A press of one of the five buttons, told apart by its tag; an unknown tag stops the program.
  void _buttonPressed(const Button& sender);
  /// The user picked a segment of `sender`; only the screen's own segmented control counts, and an index
  /// other than 0 (video) or 1 (photo) stops the program.
  void _videoPhotoSegmentChanged(const SegmentedControl& sender);
  /// A pinch on the preview zooms the camera.
  void _zoomPinchGesture(const PinchGestureRecognizer& gesture);

  _UIState state() const { return _state; }
  MediaType mediaType() const { return _mediaType; }
  _ControlButtonType mainControlButtonType() const { return _mainControlButtonType; }
  const _BottomControlsVisibility& bottomControlsVisibility() const { return _bottomControlsVisibility; }
  _SessionState sessionState() const { return _sessionState; }
  const std::optional<std::string>& sessionSetupErrorDescription() const {
    return _sessionSetupErrorDescription;
  }
  bool newCapture() const { return _newCapture; }
  const std::optional<URL>& fileURL() const { return _fileURL; }
  const URL& mediaDirectory() const { return _mediaDirectory; }
  bool flashOn() const { return _flashOn; }
  bool autoplay() const { return _autoplay; }

  // The views. The toolkit view reads them after every change it is told about, and writes only what the
  // user changes (the selected segment) before calling the matching action.
  MediaPreviewView _mediaPreviewView;
  Button _mainControlButton;
  Button _trashButton;
  Button _dismissButton;
  Button _confirmButton;
  Button _flashButton;
  Label _timeLabel;
  SegmentedControl _videoPhotoSegmentedControl;
  BottomControlsView _bottomControlsView;
  /// The bottom panel's height.
  LayoutConstraint _bottomControlsHeightConstraint;
  /// The distance of the trash and confirm buttons to the panel's bottom.
  LayoutConstraint _bottomControlsSideButtonsBottomtConstraint;
  /// The player's layer inside the preview, while a video is on screen.
  std::optional<VideoLayer> _playerLayer;
  /// The photo on screen, over the preview.
  std::optional<ImageView> _photoImageView;

 private:
  // State machine and bottom panel (KivMediaCaptureAndPlayViewController.cpp).
  void _setupButtons();
  void _setupMediaType();
  void _setMediaType(MediaType mediaType);
  void _update(_UIState state, bool animated);
  void _enterReadyToCapture();
  void _enterReadyToPlayback(bool animated);
  void _enterImageDisplay();
  void _updateBottomControlsUI(_UIState state, bool animated);
  _BottomControlsVisibility _visibleControls(_UIState state);
  /// Confirm for a new capture, trash when the host lets the file on screen be deleted.
  _BottomControlsVisibility _reviewControls();
  std::optional<_ControlButtonType> _controlType(_UIState state) const;
  View& _controlView(_BottomControlsVisibility::ControlType control);
  void _switchControl(_ControlButtonType type, bool animated);
  void _controlButtonPressed();
  void _pausePlayback();
  void _dismiss(DismissReason reason);
  void _controlsDidChange(bool animated);
  void _mediaPreviewDidChange();
  /// A frame handler for a device or player that shows its frames with `show` on the main queue.
  CaptureDevice::FrameHandler _frameHandler(std::function<void(const Image&)> show) const;

  // Capture session (CaptureSession.cpp).
  void _authorize(std::function<void(bool granted)> completion);
  void _continueAuthorized();
  void _setupSession();
  void _continueWithSession(_SessionState state, const std::optional<SetupError>& error);
  void _startSession();
  void _setupPreview();
  void _takePhoto();
  void _photoOutputDidFinishProcessingPhoto(const std::optional<Data>& photo,
                                            const std::optional<Error>& error);
  void _startRecording();
  void _fileOutputDidFinishRecording(const URL& outputFileURL, const std::optional<Error>& error);
  void _setFlashOn(bool flashOn);
  void _updateTorch();
  void _setVideoZoomFactor(double factor);
  URL _newFileURL(std::string_view extension) const;

  // Review and playback (ReviewAndPlayback.cpp).
  bool _prepareForPlayback();
  void _insertPlayerLayer();
  void _playback();
  void _playerItemDidPlayToEnd();
  void _playerItemDidFail(const Error& error);
  bool _insertImageView();
  void _removePlayerLayerAndImageView();
  void _updateTimeLabel(double seconds);
  void _scheduleTimeDisplayTimer(std::function<double()> time);
  void _invalidateTimeDisplayTimer();
  bool _canDeleteFile(const std::optional<URL>& at);
  void _deleteCurrentFile();
  /// Replaces the player's item with nothing, stops observing it and drops the display timer.
  void _removePlayerItem();

  /**
   * `body` made callable from any thread: each call posts it, with its arguments, onto the main queue,
   * where it runs only while this screen still exists.
   */
  template <class Body>
  auto _onMain(Body body) const {
    return [lifetime = std::weak_ptr<const int>(_lifetime), mainQueue = _mainQueue,
            body = std::move(body)](auto... arguments) {
      mainQueue([lifetime, body, arguments...] {
        if (lifetime.lock()) body(arguments...);
      });
    };
  }

  KivMediaCaptureAndPlayViewControllerDelegate& _delegate;
  CaptureScreenView* _view = nullptr;
  std::shared_ptr<CaptureDevice> _captureDevice;
  std::shared_ptr<MediaPlayer> _player;
  std::shared_ptr<TimerSource> _timerSource;
  CapturePlatform::ImageDecoder _imageFromData;
  CapturePlatform::Executor _mainQueue;
  std::unique_ptr<DispatchQueue> _ownSessionQueue;
  CapturePlatform::Executor _sessionQueue;
  std::function<Date()> _now;
  /// Tasks posted onto the main queue hold it weakly and do nothing once it has gone with the screen.
  std::shared_ptr<const int> _lifetime = std::make_shared<const int>(0);

  bool _autoplay;
  std::optional<double> _initialVideoZoomFactor;
  _UIState _state = _UIState::disabled;
  _ControlButtonType _mainControlButtonType = _ControlButtonType::record;
  MediaType _mediaType = MediaType::video;
  _BottomControlsVisibility _bottomControlsVisibility;
  /// Whether the capture session has been made (once, on first need; it is kept for the screen's life).
  bool _session = false;
  _SessionState _sessionState = _SessionState::stopped;
  std::optional<std::string> _sessionSetupErrorDescription;
  bool _newCapture = false;
  std::optional<URL> _fileURL;
  URL _mediaDirectory;
  bool _flashOn = false;
  std::unique_ptr<Timer> _timeDisplayTimer;
  /// The delegate's answers to whether a file may be deleted, by the file's URL text.
  std::map<std::string, bool> _fileDeletionCache;
};

}  // namespace zu

template <>
struct zu::RawValueRange<zu::KivMediaCaptureAndPlayViewController::DismissReason> {
  static constexpr int first = 0;
  static constexpr int last = 3;
};
template <>
struct zu::RawValueRange<zu::KivMediaCaptureAndPlayViewController::MediaType> {
  static constexpr int first = 0;
  static constexpr int last = 1;
};
template <>
struct zu::RawValueRange<zu::KivMediaCaptureAndPlayViewController::_UIState> {
  static constexpr int first = 0;
  static constexpr int last = 7;
};
template <>
struct zu::RawValueRange<zu::KivMediaCaptureAndPlayViewController::_ButtonType> {
  static constexpr int first = 0;
  static constexpr int last = 4;
};
template <>
struct zu::RawValueRange<zu::KivMediaCaptureAndPlayViewController::_ControlButtonType> {
  static constexpr int first = 0;
  static constexpr int last = 5;
};

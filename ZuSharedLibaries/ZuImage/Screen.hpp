#pragma once

namespace zu {

/**
 * The main screen, the counterpart of the platform's `UIScreen.main`, as far as images need it: the scale
 * that images made for display carry. A host with a screen of more than one pixel per point says so once,
 * at start-up (a Qt host: `QGuiApplication::primaryScreen()->devicePixelRatio()`).
 *
 * @par Thread Safety
 * Both operations may be called from any thread.
 */
class Screen {
 public:
  Screen() = delete;

  /// Pixels per point of the main screen: 1 until the host sets it.
  static double mainScale();
  static void setMainScale(double scale);
};

}  // namespace zu

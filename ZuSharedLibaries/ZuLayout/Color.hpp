#pragma once

#include <cstdint>

namespace zu {

/**
 * A colour with fractional red, green, blue and alpha channels from 0 to 1, the counterpart of the platform's
 * `UIColor`. The integer constructors take 0 to 255 per channel; 255 is full intensity.
 *
 * @code
 * zu::Color panel = zu::Color::withRGBA(0x0000008C);  // black, 55 % opaque
 * @endcode
 */
struct Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 1;

  /// Opaque black.
  constexpr Color() = default;
  /// Each channel clamped at 255, then divided by 255.
  constexpr Color(unsigned red, unsigned green, unsigned blue, unsigned andAlpha)
      : red(fraction(red)), green(fraction(green)), blue(fraction(blue)), alpha(fraction(andAlpha)) {}
  /// Red in bits 24-31, green in 16-23, blue in 8-15, alpha in 0-7.
  constexpr explicit Color(std::uint32_t RGBA)
      : Color(RGBA >> 24, (RGBA >> 16) & 0xFFu, (RGBA >> 8) & 0xFFu, RGBA & 0xFFu) {}

  static constexpr Color withIntRed(unsigned red, unsigned green, unsigned blue, unsigned alpha) {
    return {red, green, blue, alpha};
  }
  static constexpr Color withRGBA(std::uint32_t rgba) { return Color(rgba); }

  friend constexpr bool operator==(const Color&, const Color&) = default;

 private:
  static constexpr double fraction(unsigned channel) { return (channel > 255 ? 255 : channel) / 255.0; }
};

}  // namespace zu

#pragma once

#include <compare>

namespace zu {

/**
 * A point in time, held as seconds (double precision) since the reference date 2001-01-01 00:00:00 UTC,
 * like the platform's `Date`. A default-constructed date is the reference date itself; use `Date::now()`
 * for the current time.
 */
class Date {
 public:
  /// Seconds from 1970-01-01 00:00:00 UTC to the reference date.
  static constexpr double timeIntervalBetween1970AndReferenceDate = 978307200.0;

  constexpr Date() = default;
  constexpr explicit Date(double timeIntervalSinceReferenceDate) : seconds_(timeIntervalSinceReferenceDate) {}

  /// The current time of the system clock.
  static Date now();
  static constexpr Date fromTimeIntervalSince1970(double seconds) {
    return Date(seconds - timeIntervalBetween1970AndReferenceDate);
  }

  constexpr double timeIntervalSinceReferenceDate() const { return seconds_; }
  constexpr double timeIntervalSince1970() const {
    return seconds_ + timeIntervalBetween1970AndReferenceDate;
  }
  /// Seconds from `other` to this date: positive when this date is later.
  constexpr double timeIntervalSince(Date other) const { return seconds_ - other.seconds_; }
  constexpr Date addingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }

  friend constexpr bool operator==(Date, Date) = default;
  // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 misreads the defaulted comparison's literal 0.
  friend constexpr auto operator<=>(Date, Date) = default;

 private:
  double seconds_ = 0;
};

}  // namespace zu

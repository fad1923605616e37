#pragma once

#include <map>
#include <optional>
#include <set>

#include "ZuFoundation/RawValue.hpp"

namespace zu {

/**
 * Which controls of the capture screen's bottom panel are visible, and what follows from it: the panel's
 * height, the side buttons' distance to its bottom, and the transitions from a previous value.
 */
struct BottomControlsVisibility {
  enum class ControlType { trash = 0, confirm = 1, segmented = 2, main = 3 };
  enum class Transition { none, hide, show, grows, shrinks };

  /// The panel's layout constants, in points.
  struct _Const {
    struct BottomControlsHeightConstraint {
      static constexpr double hidden = 0;
      static constexpr double onlySideButtons = 60;
      static constexpr double noSegmentedControl = 100;
      static constexpr double full = 138;
    };
    struct BottomControlsSideButtonsBottomConstraint {
      static constexpr double onlySideButtons = 10;
      static constexpr double withOtherButtons = 30;
    };
  };

  std::set<ControlType> visibleControls;

  bool isVisible(ControlType control) const { return visibleControls.contains(control); }
  /// For every control: `show` when it becomes visible, `hide` when it disappears, else `none`.
  std::map<ControlType, Transition> transitions(const BottomControlsVisibility& from) const;
  /// `grows` or `shrinks` when the panel's height changes, else `none`.
  Transition heightTransition(const BottomControlsVisibility& from) const;
  /// `full` with the segmented control, `noSegmentedControl` with the main button, `onlySideButtons` with
  /// trash or confirm alone, `hidden` with nothing.
  double heightConstant() const;
  /// `withOtherButtons` beside the main button or the segmented control, `onlySideButtons` alone; nothing
  /// (unchanged) when nothing is visible.
  std::optional<double> sideButtonsBottomConstant() const;

  friend bool operator==(const BottomControlsVisibility&, const BottomControlsVisibility&) = default;
};

template <>
struct RawValueRange<BottomControlsVisibility::ControlType> {
  static constexpr int first = 0;
  static constexpr int last = 3;
};

}  // namespace zu

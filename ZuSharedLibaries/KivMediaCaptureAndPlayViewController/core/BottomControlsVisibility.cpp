#include "KivMediaCaptureAndPlayViewController/core/BottomControlsVisibility.hpp"

namespace zu {

std::map<BottomControlsVisibility::ControlType, BottomControlsVisibility::Transition>
BottomControlsVisibility::transitions(const BottomControlsVisibility& from) const {
  std::map<ControlType, Transition> result;
  for (int raw = RawValueRange<ControlType>::first; raw <= RawValueRange<ControlType>::last; ++raw) {
    const auto control = static_cast<ControlType>(raw);
    const bool was = from.isVisible(control);
    const bool is = isVisible(control);
    result[control] = was == is ? Transition::none : is ? Transition::show : Transition::hide;
  }
  return result;
}

BottomControlsVisibility::Transition BottomControlsVisibility::heightTransition(
    const BottomControlsVisibility& from) const {
  const double before = from.heightConstant();
  const double after = heightConstant();
  if (after == before) return Transition::none;
  return after > before ? Transition::grows : Transition::shrinks;
}

double BottomControlsVisibility::heightConstant() const {
  using Height = _Const::BottomControlsHeightConstraint;
  if (isVisible(ControlType::segmented)) return Height::full;
  if (isVisible(ControlType::main)) return Height::noSegmentedControl;
  if (!visibleControls.empty()) return Height::onlySideButtons;
  return Height::hidden;
}

std::optional<double> BottomControlsVisibility::sideButtonsBottomConstant() const {
  using Distance = _Const::BottomControlsSideButtonsBottomConstraint;
  if (isVisible(ControlType::segmented) || isVisible(ControlType::main)) return Distance::withOtherButtons;
  if (!visibleControls.empty()) return Distance::onlySideButtons;
  return std::nullopt;
}

}  // namespace zu

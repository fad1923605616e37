#pragma once

#include <optional>
#include <vector>

#include "ZuLayout/Color.hpp"
#include "ZuLayout/LayoutConstraint.hpp"

namespace zu {

/**
 * A node of a view model, the counterpart of the platform's `UIView` as far as a model needs it: whether it
 * shows, its background, its place under a superview and the layout constraints it holds. A toolkit's view
 * mirrors these values; laying out is that view's job, so "lay out at once" has nothing to do here.
 *
 * The edge helpers tie this view's four edges to its superview's; the constraints live in the superview,
 * as activated constraints do on the platform. Without a superview they do nothing.
 *
 * @par Thread Safety
 * A value: use one from one thread at a time.
 */
class View {
 public:
  bool isHidden = false;
  std::optional<Color> backgroundColor;
  /// The constraints this view holds: between itself and its subviews, and its own sizes.
  std::vector<LayoutConstraint> constraints;

  View* superview() const { return superview_; }
  /// Puts `view` under this one (out of any other superview).
  void addSubview(View& view) { view.superview_ = this; }
  void removeFromSuperview() { superview_ = nullptr; }

  /// Pins top, bottom, left and right to the superview's layout-margins guide, active.
  void constrainToSuperviewMargins();
  /// Pins top, bottom, left and right to the superview's edges, active.
  void constrainToSuperview() { activateConstraintsToSuperview(); }
  /// Makes the four edge constraints to the superview and activates them.
  void activateConstraintsToSuperview();
  void unconstrainFromSuperview() { deactivateConstraintsToSuperview(); }
  /// Deactivates (removes) the four edge constraints to the superview's edges.
  void deactivateConstraintsToSuperview();

  /// Removes `constraint` from this view and adds `with`, active.
  void replaceConstraint(const LayoutConstraint& constraint, const LayoutConstraint& with);
  /// Replaces `constraint` with its copy carrying `with` as multiplier, and hands the copy back in
  /// `constraint`.
  void replaceConstraintMultiplier(LayoutConstraint& constraint, double with);

 private:
  std::vector<LayoutConstraint> edgeConstraintsToSuperview(bool toMargins) const;
  void add(LayoutConstraint constraint);
  void remove(const LayoutConstraint& constraint);

  View* superview_ = nullptr;
};

}  // namespace zu

#pragma once

namespace zu {

class View;

/// The edges and sizes a constraint ties together; the "Margin" cases are the edges of a view's
/// layout-margins guide.
enum class LayoutAttribute {
  notAnAttribute,
  left,
  right,
  top,
  bottom,
  width,
  height,
  centerX,
  centerY,
  leftMargin,
  rightMargin,
  topMargin,
  bottomMargin,
};

enum class LayoutRelation { lessThanOrEqual = -1, equal = 0, greaterThanOrEqual = 1 };

/**
 * One layout rule, the counterpart of the platform's `NSLayoutConstraint`:
 * `firstItem.firstAttribute  relation  secondItem.secondAttribute * multiplier + constant`.
 * A size constraint has no second item. Items are views of the same view tree, which outlives its
 * constraints.
 */
struct LayoutConstraint {
  const View* firstItem = nullptr;
  LayoutAttribute firstAttribute = LayoutAttribute::notAnAttribute;
  LayoutRelation relation = LayoutRelation::equal;
  const View* secondItem = nullptr;
  LayoutAttribute secondAttribute = LayoutAttribute::notAnAttribute;
  double multiplier = 1;
  double constant = 0;
  bool isActive = false;

  /// A new, inactive constraint with the same items, attributes, relation and constant as this one, and
  /// `multiplier`; this constraint is not changed.
  constexpr LayoutConstraint constraintWithMultiplier(double multiplier) const {
    return {firstItem, firstAttribute, relation, secondItem, secondAttribute, multiplier, constant, false};
  }

  friend constexpr bool operator==(const LayoutConstraint&, const LayoutConstraint&) = default;
};

}  // namespace zu

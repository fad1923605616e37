#include "ZuLayout/View.hpp"

#include <algorithm>

namespace zu {
namespace {

bool sameRule(LayoutConstraint a, LayoutConstraint b) {
  a.isActive = b.isActive = false;
  return a == b;
}

}  // namespace

std::vector<LayoutConstraint> View::edgeConstraintsToSuperview(bool toMargins) const {
  using enum LayoutAttribute;
  const auto edge = [&](LayoutAttribute own, LayoutAttribute margin) {
    return LayoutConstraint{this, own, LayoutRelation::equal, superview_, toMargins ? margin : own};
  };
  return {edge(top, topMargin), edge(bottom, bottomMargin), edge(left, leftMargin), edge(right, rightMargin)};
}

void View::constrainToSuperviewMargins() {
  if (!superview_) return;
  for (const auto& constraint : edgeConstraintsToSuperview(true)) superview_->add(constraint);
}

void View::activateConstraintsToSuperview() {
  if (!superview_) return;
  for (const auto& constraint : edgeConstraintsToSuperview(false)) superview_->add(constraint);
}

void View::deactivateConstraintsToSuperview() {
  if (!superview_) return;
  for (const auto& constraint : edgeConstraintsToSuperview(false)) superview_->remove(constraint);
}

void View::replaceConstraint(const LayoutConstraint& constraint, const LayoutConstraint& with) {
  remove(constraint);
  add(with);
}

void View::replaceConstraintMultiplier(LayoutConstraint& constraint, double with) {
  LayoutConstraint replacement = constraint.constraintWithMultiplier(with);
  replaceConstraint(constraint, replacement);
  replacement.isActive = true;
  constraint = replacement;
}

void View::add(LayoutConstraint constraint) {
  constraint.isActive = true;
  constraints.push_back(constraint);
}

void View::remove(const LayoutConstraint& constraint) {
  const auto found = std::find_if(constraints.begin(), constraints.end(),
                                  [&](const LayoutConstraint& held) { return sameRule(held, constraint); });
  if (found != constraints.end()) constraints.erase(found);
}

}  // namespace zu

#include <gtest/gtest.h>

#include "ZuLayout/Color.hpp"
#include "ZuLayout/LayoutConstraint.hpp"
#include "ZuLayout/View.hpp"

namespace {

using zu::Color;
using zu::LayoutAttribute;
using zu::LayoutConstraint;
using zu::View;

TEST(Color, IntegerChannelsAreClampedAndPacked) {
  EXPECT_EQ(Color(0xFF0000FFU), (Color{255, 0, 0, 255}));
  EXPECT_EQ(Color::withRGBA(0xFF0000FF).red, 1.0);
  EXPECT_EQ(Color::withRGBA(0xFF0000FF).alpha, 1.0);
  EXPECT_EQ(Color::withRGBA(0x12345678), Color::withIntRed(0x12, 0x34, 0x56, 0x78));
  EXPECT_EQ(Color::withIntRed(300, 256, 1000, 4000000000U), Color::withIntRed(255, 255, 255, 255));
  EXPECT_EQ(Color::withIntRed(0, 51, 102, 0), (Color{0, 51, 102, 0}));
  EXPECT_DOUBLE_EQ(Color::withIntRed(0, 51, 102, 0).green, 0.2);
  EXPECT_EQ(Color(), Color::withRGBA(0x000000FF));
}

TEST(LayoutConstraint, ConstraintWithMultiplierCopiesEverythingButTheMultiplier) {
  View a;
  View b;
  const LayoutConstraint original{
      &a,  LayoutAttribute::width, zu::LayoutRelation::greaterThanOrEqual, &b, LayoutAttribute::height, 1, 8,
      true};
  const LayoutConstraint copy = original.constraintWithMultiplier(0.5);
  EXPECT_EQ(copy, (LayoutConstraint{&a, LayoutAttribute::width, zu::LayoutRelation::greaterThanOrEqual, &b,
                                    LayoutAttribute::height, 0.5, 8, false}));
  EXPECT_EQ(original.multiplier, 1);
}

TEST(View, EdgeConstraintsLiveInTheSuperview) {
  View parent;
  View child;
  child.constrainToSuperview();  // no superview: nothing
  EXPECT_TRUE(child.constraints.empty());

  parent.addSubview(child);
  child.constrainToSuperviewMargins();
  ASSERT_EQ(parent.constraints.size(), 4U);
  EXPECT_EQ(parent.constraints[0], (LayoutConstraint{&child, LayoutAttribute::top, zu::LayoutRelation::equal,
                                                     &parent, LayoutAttribute::topMargin, 1, 0, true}));
  child.unconstrainFromSuperview();  // the edge constraints, not the margin ones
  EXPECT_EQ(parent.constraints.size(), 4U);

  parent.constraints.clear();
  child.constrainToSuperview();
  EXPECT_EQ(parent.constraints[3],
            (LayoutConstraint{&child, LayoutAttribute::right, zu::LayoutRelation::equal, &parent,
                              LayoutAttribute::right, 1, 0, true}));
  child.deactivateConstraintsToSuperview();
  EXPECT_TRUE(parent.constraints.empty());
}

TEST(View, ReplacingConstraints) {
  View panel;
  LayoutConstraint height{
      &panel, LayoutAttribute::height, zu::LayoutRelation::equal, &panel, LayoutAttribute::width, 1, 10,
      true};
  panel.constraints.push_back(height);
  panel.replaceConstraintMultiplier(height, 2);
  EXPECT_EQ(height.multiplier, 2);
  EXPECT_TRUE(height.isActive);
  EXPECT_EQ(panel.constraints, std::vector{height});

  const LayoutConstraint fixed{&panel,
                               LayoutAttribute::height,
                               zu::LayoutRelation::equal,
                               nullptr,
                               LayoutAttribute::notAnAttribute,
                               1,
                               60,
                               false};
  panel.replaceConstraint(height, fixed);
  ASSERT_EQ(panel.constraints.size(), 1U);
  EXPECT_EQ(panel.constraints[0].constant, 60);
  EXPECT_TRUE(panel.constraints[0].isActive);
}

}  // namespace

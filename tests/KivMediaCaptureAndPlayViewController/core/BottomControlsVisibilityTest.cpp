#include "KivMediaCaptureAndPlayViewController/core/BottomControlsVisibility.hpp"

#include <gtest/gtest.h>

namespace {

using zu::BottomControlsVisibility;
using ControlType = BottomControlsVisibility::ControlType;
using Transition = BottomControlsVisibility::Transition;

struct PanelRow {
  std::set<ControlType> visible;
  double height;
  std::optional<double> sideDistance;
};

class BottomControlsPanel : public testing::TestWithParam<PanelRow> {};

TEST_P(BottomControlsPanel, HeightAndSideDistanceFollowTheVisibleControls) {
  const BottomControlsVisibility visibility{GetParam().visible};
  EXPECT_EQ(visibility.heightConstant(), GetParam().height);
  EXPECT_EQ(visibility.sideButtonsBottomConstant(), GetParam().sideDistance);
}

INSTANTIATE_TEST_SUITE_P(Table, BottomControlsPanel,
                         testing::Values(PanelRow{{}, 0, std::nullopt},
                                         PanelRow{{ControlType::trash}, 60, 10},
                                         PanelRow{{ControlType::confirm}, 60, 10},
                                         PanelRow{{ControlType::trash, ControlType::confirm}, 60, 10},
                                         PanelRow{{ControlType::main}, 100, 30},
                                         PanelRow{{ControlType::main, ControlType::trash}, 100, 30},
                                         PanelRow{{ControlType::segmented}, 138, 30},
                                         PanelRow{{ControlType::segmented, ControlType::main}, 138, 30}));

TEST(BottomControlsVisibility, TransitionsFromThePreviousValue) {
  const BottomControlsVisibility capture{{ControlType::segmented, ControlType::main}};
  const BottomControlsVisibility review{{ControlType::main, ControlType::confirm}};
  EXPECT_EQ(review.transitions(capture),
            (std::map<ControlType, Transition>{{ControlType::trash, Transition::none},
                                               {ControlType::confirm, Transition::show},
                                               {ControlType::segmented, Transition::hide},
                                               {ControlType::main, Transition::none}}));
  EXPECT_EQ(review.heightTransition(capture), Transition::shrinks);
  EXPECT_EQ(capture.heightTransition(review), Transition::grows);
  EXPECT_EQ(review.heightTransition(BottomControlsVisibility{{ControlType::main}}), Transition::none);
}

}  // namespace

#include "KivMediaCaptureAndPlayViewController/gstreamer/detail/V4l2Camera.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace {

using zu::detail::ControlRange;

struct ZoomCase {
  const char* name;
  ControlRange range;
  double maximum;
  /// Factors asked for and the control values they give.
  std::vector<std::pair<double, std::int32_t>> values;
};

class V4l2Zoom : public testing::TestWithParam<ZoomCase> {};

TEST_P(V4l2Zoom, FactorsMapOntoTheControlsRangeAndAreClamped) {
  const ZoomCase& zoom = GetParam();
  EXPECT_DOUBLE_EQ(zu::detail::maxZoomFactor(zoom.range, 4), zoom.maximum);
  for (const auto& [factor, value] : zoom.values) {
    EXPECT_EQ(zu::detail::zoomControlValue(zoom.range, factor, 4), value) << factor;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, V4l2Zoom,
    testing::Values(
        // Focal lengths, the way UVC cameras give them: 100 is the whole picture.
        ZoomCase{"focalLengths", {100, 500}, 5, {{1, 100}, {2.5, 250}, {5, 500}, {9, 500}, {0.5, 100}}},
        // Steps from zero, spread over 1 to the fallback maximum.
        ZoomCase{"steps", {0, 10}, 4, {{1, 0}, {2.5, 5}, {4, 10}, {8, 10}}},
        ZoomCase{"fixed", {5, 5}, 1, {{1, 5}, {3, 5}}}),
    [](const testing::TestParamInfo<ZoomCase>& row) { return std::string(row.param.name); });

}  // namespace

#include "ZuImage/Screen.hpp"

#include <atomic>

namespace zu {
namespace {

std::atomic<double>& mainScaleValue() {
  static std::atomic<double> scale = 1;
  return scale;
}

}  // namespace

double Screen::mainScale() { return mainScaleValue().load(); }

void Screen::setMainScale(double scale) { mainScaleValue().store(scale); }

}  // namespace zu

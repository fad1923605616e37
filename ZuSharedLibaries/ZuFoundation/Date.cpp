#include "ZuFoundation/Date.hpp"

#include <chrono>

namespace zu {

Date Date::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return fromTimeIntervalSince1970(std::chrono::duration<double>(sinceEpoch).count());
}

}  // namespace zu

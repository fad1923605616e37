#pragma once

#include <sys/resource.h>

#include <fstream>
#include <string>

namespace testing_support {

/// The process's peak resident memory so far, in KiB.
inline long peakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

/// The process's resident memory now, in KiB.
inline long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  }
  return 0;
}

/// The CPU time of the whole process so far, every thread's, in milliseconds.
inline double cpuMilliseconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto ms = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
  };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

}  // namespace testing_support

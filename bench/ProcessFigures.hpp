#pragma once

// What the benchmark programs report about themselves: elapsed and CPU time, resident memory, threads.

#include <sys/resource.h>

#include <chrono>
#include <fstream>
#include <string>
#include <string_view>

namespace benchfigures {

using Clock = std::chrono::steady_clock;

/// Seconds elapsed since `start`.
inline double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The process's peak resident memory so far, in KiB.
inline long peakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

/// The CPU time of the whole process so far, every thread's, in seconds.
inline double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// A number from the process's status ("VmRSS", "Threads"), 0 when it is not there.
inline long statusFigure(std::string_view name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name) && line.size() > name.size() && line[name.size()] == ':')
      return std::stol(line.substr(name.size() + 1));
  }
  return 0;
}

/// The process's resident memory now, in KiB.
inline long residentKiB() { return statusFigure("VmRSS"); }

/// The process's threads now.
inline int threadCount() { return static_cast<int>(statusFigure("Threads")); }

}  // namespace benchfigures

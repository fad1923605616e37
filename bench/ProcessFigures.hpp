#pragma once

// What the benchmark programs report about themselves: elapsed time, peak resident memory, threads.

#include <sys/resource.h>

#include <chrono>
#include <fstream>
#include <string>

namespace benchfigures {

using Clock = std::chrono::steady_clock;

inline double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The process's peak resident memory so far, in KiB.
inline long peakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

/// The process's threads now.
inline int threadCount() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Threads:")) return std::stoi(line.substr(8));
  }
  return 0;
}

}  // namespace benchfigures

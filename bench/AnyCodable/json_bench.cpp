// Measures the SDK's JSON reader on one document.
//
//   json_bench <file>    parses <file> with JSONSerialization::jsonObject
//
// Run it in its own process per document (run.sh does), so that the peak memory printed belongs to that
// document. Prints "key=value" lines: the best of three parses in seconds, the page faults taken during that
// parse (fresh heap pages the allocator asked the kernel for), and the peak resident size in KiB.
#include <sys/resource.h>

#include <fstream>
#include <iostream>
#include <iterator>

#include "AnyCodable/JSONSerialization.hpp"
#include "ProcessFigures.hpp"

namespace {

using benchfigures::peakResidentKiB;
using benchfigures::since;

constexpr int kRuns = 3;

long minorPageFaults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: json_bench <file>\n";
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  const zu::Data bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  double best = 1e300;
  long bestFaults = 0;
  for (int run = 0; run < kRuns; ++run) {
    const long faults = minorPageFaults();
    const auto start = benchfigures::Clock::now();
    const auto value = zu::JSONSerialization::jsonObject(bytes);
    if (const double seconds = since(start); seconds < best) {
      best = seconds;
      bestFaults = minorPageFaults() - faults;
    }
    if (!value) {
      std::cerr << value.error().localizedDescription() << "\n";
      return 1;
    }
  }
  std::cout << "bytes=" << bytes.size() << "\nparse_seconds=" << best << "\nparse_page_faults=" << bestFaults
            << "\npeak_kib=" << peakResidentKiB() << "\n";
  return 0;
}

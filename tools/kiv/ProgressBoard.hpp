#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kivcli {

/**
 * Progress bars on standard error: one row per transfer and a total row, redrawn in place a few times a
 * second. A board that is not shown (standard error is not a terminal, or the output is JSON) draws nothing.
 *
 *   20240501_120000.jpg  [##########>          ]  52%   26.0/50.0 MiB
 *   total                [####>                ]  23%  230.0/1000.0 MiB  412.3 MiB/s
 *
 * Sizes and rates under a tenth of a MiB read in KiB.
 *
 * @par Thread Safety
 * Progress handlers may run on any thread; drawing is serialised by the board's lock.
 */
class ProgressBoard {
 public:
  /// Rows labelled `labels`, expecting `sizes` bytes each (0 when unknown until the transfer says).
  ProgressBoard(std::vector<std::string> labels, std::vector<std::int64_t> sizes, bool shown);

  /// Records that the transfer of row `row` has moved `done` of `expected` bytes (-1: not known).
  void update(std::size_t row, std::int64_t done, std::int64_t expected);
  /// Draws the final state once more and leaves the cursor below the board.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;
  struct Row {
    std::string label;
    std::int64_t done = 0;
    std::int64_t expected = 0;
  };

  void draw(bool force);
  std::string line(const std::string& label, std::int64_t done, std::int64_t expected,
                   const std::string& suffix) const;

  std::mutex mutex_;
  std::vector<Row> rows_;
  bool shown_;
  bool drawn_ = false;
  std::size_t labelWidth_ = 5;
  Clock::time_point started_ = Clock::now();
  Clock::time_point lastDraw_{};
};

}  // namespace kivcli

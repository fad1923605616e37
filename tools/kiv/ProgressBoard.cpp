#include "ProgressBoard.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <utility>

namespace kivcli {
namespace {

constexpr auto redrawInterval = std::chrono::milliseconds(100);
constexpr double mebibyte = 1024.0 * 1024.0;

std::size_t terminalWidth() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

/// The unit in which sizes up to `largest` bytes read best: KiB below a tenth of a MiB, MiB from there.
struct Unit {
  double bytes;
  const char* name;
};
Unit unitFor(std::int64_t largest) {
  return static_cast<double>(largest) < mebibyte / 10 ? Unit{1024.0, "KiB"} : Unit{mebibyte, "MiB"};
}

std::string amount(std::int64_t bytes, const Unit& unit) {
  char text[32];
  static_cast<void>(std::snprintf(text, sizeof text, "%.1f", static_cast<double>(bytes) / unit.bytes));
  return text;
}

}  // namespace

ProgressBoard::ProgressBoard(std::vector<std::string> labels, std::vector<std::int64_t> sizes, bool shown)
    : shown_(shown) {
  for (std::size_t i = 0; i < labels.size(); ++i) {
    labelWidth_ = std::max(labelWidth_, labels[i].size());
    rows_.push_back({std::move(labels[i]), 0, i < sizes.size() ? sizes[i] : 0});
  }
}

void ProgressBoard::update(std::size_t row, std::int64_t done, std::int64_t expected) {
  std::lock_guard lock(mutex_);
  rows_[row].done = done;
  if (expected > 0) rows_[row].expected = expected;
  draw(false);
}

void ProgressBoard::finish() {
  std::lock_guard lock(mutex_);
  draw(true);
}

void ProgressBoard::draw(bool force) {
  if (!shown_ || rows_.empty()) return;
  const auto now = Clock::now();
  if (!force && drawn_ && now - lastDraw_ < redrawInterval) return;
  lastDraw_ = now;

  std::ostringstream board;
  // Back to the board's first row, each row cleared before it is written again.
  if (drawn_) board << "\x1b[" << rows_.size() + 1 << "A";
  std::int64_t done = 0;
  std::int64_t expected = 0;
  for (const Row& row : rows_) {
    board << "\r\x1b[2K" << line(row.label, row.done, row.expected, "") << '\n';
    done += row.done;
    expected += row.expected;
  }
  const double seconds = std::chrono::duration<double>(now - started_).count();
  const auto perSecond = static_cast<std::int64_t>(seconds > 0 ? static_cast<double>(done) / seconds : 0);
  const Unit rateUnit = unitFor(perSecond);
  const std::string rate = seconds > 0 ? "  " + amount(perSecond, rateUnit) + " " + rateUnit.name + "/s" : "";
  board << "\r\x1b[2K" << line("total", done, expected, rate) << '\n';
  drawn_ = true;
  std::cerr << board.str() << std::flush;
}

std::string ProgressBoard::line(const std::string& label, std::int64_t done, std::int64_t expected,
                                const std::string& suffix) const {
  const int percent = expected > 0 ? static_cast<int>(std::min<std::int64_t>(100, done * 100 / expected)) : 0;
  std::string share = std::to_string(percent) + "%";
  share.insert(0, 4 - share.size(), ' ');
  const Unit unit = unitFor(std::max(done, expected));
  const std::string figures = share + "  " + amount(done, unit) + "/" +
                              (expected > 0 ? amount(expected, unit) : std::string("?")) + " " + unit.name +
                              suffix;
  const std::size_t width = terminalWidth();
  const std::size_t fixed = labelWidth_ + figures.size() + 8;
  const std::size_t barWidth = width > fixed + 10 ? std::min<std::size_t>(width - fixed, 40) : 10;
  const auto filled = static_cast<std::size_t>(percent) * barWidth / 100;
  std::string bar(filled, '#');
  if (filled < barWidth) bar += '>' + std::string(barWidth - filled - 1, ' ');
  std::string padded = label;
  padded.resize(labelWidth_, ' ');
  std::string text = padded + "  [" + bar + "]  " + figures;
  if (text.size() >= width) text.resize(width - 1);
  return text;
}

}  // namespace kivcli

#pragma once

// ProgressBar: a one-line bar with percentage and throughput on standard error, for the long
// transfers of the tarn commands. It draws only when standard error is a terminal, so pipes and
// files never see it; commands that print JSON use none. Redrawn at most ten times a second;
// the line is cleared when the bar finishes or is destroyed. One thread.

#include <chrono>
#include <cstdint>
#include <string>

namespace tarn {

class ProgressBar {
 public:
  // `label` leads the line ("write", "read", "verify 2").
  explicit ProgressBar(std::string label);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // `done` bytes of `total` (a stack's progress callback passes them on); redraws when the last
  // drawing is old enough or all is done.
  void update(std::uint64_t done, std::uint64_t total);
  // Clears the line (when something was drawn); later updates draw again.
  void finish();

 private:
  void draw(std::uint64_t done, std::uint64_t total);

  std::string label_;
  bool visible_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_draw_;
};

}  // namespace tarn

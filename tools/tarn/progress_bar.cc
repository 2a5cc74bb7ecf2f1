#include "tools/tarn/progress_bar.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace tarn {
namespace {

constexpr std::size_t kBarWidth = 30;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr double kMiB = 1024.0 * 1024.0;

}  // namespace

ProgressBar::ProgressBar(std::string label)
    : label_(std::move(label)),
      visible_(::isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()),
      last_draw_(start_ - kRedrawInterval) {}

ProgressBar::~ProgressBar() { finish(); }

void ProgressBar::update(std::uint64_t done, std::uint64_t total) {
  if (!visible_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now - last_draw_ < kRedrawInterval && done < total) return;
  last_draw_ = now;
  draw(done, total);
}

void ProgressBar::finish() {
  if (!drawn_) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  drawn_ = false;
}

void ProgressBar::draw(std::uint64_t done, std::uint64_t total) {
  const double fraction =
      total == 0 ? 1.0
                 : static_cast<double>(done < total ? done : total) / static_cast<double>(total);
  const auto filled = static_cast<std::size_t>(fraction * kBarWidth);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const double rate = seconds > 0 ? static_cast<double>(done) / kMiB / seconds : 0.0;
  const std::string line =
      fmt::format("\r{} [{}{}] {:3.0f}% {:8.1f} MiB/s\033[K", label_, std::string(filled, '#'),
                  std::string(kBarWidth - filled, '.'), fraction * 100.0, rate);
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  drawn_ = true;
}

}  // namespace tarn

#pragma once

// tarnio_bench::MicroscopyData: deterministic 16-bit fluorescence-microscopy planes for the
// benchmarks of stack data. A scene of cells (dim bodies with bright nuclei), small bright
// vesicles and filaments on a faint, smooth background, blurred by the microscope's point spread
// function, is computed once. Each plane shows it through a camera: a dark offset, read noise
// and shot noise (the Poisson count of photoelectrons approximated by a Gaussian of the same
// mean and variance), converted to counts by the camera's gain, rounded and clipped to its bit
// depth. Successive planes fade slowly, as bleaching does in a time series.
//
// The kinds of data (Kind) vary bit depth, noise and structure: the 12-bit camera of a typical
// widefield microscope, a sparse 8-bit low-light recording and a dense 16-bit one of a camera
// with a high gain.
//
// The noise of plane z comes from a fast generator seeded by z and the seed, so plane z is the
// same in every run and every benchmark. Construction takes a few tenths of a second for a
// 2048 x 2048 scene; a plane then takes a few milliseconds. fill_plane() is const and may run on
// several threads at once.

#include <algorithm>
#include <array>
#include <boost/math/special_functions/erf.hpp>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarnio_bench {

// A camera and the density of the scene it looks at.
struct Kind {
  std::string name;
  // The largest count: 2^bits - 1.
  float max_value = 4095.0f;
  // Counts per photoelectron.
  float gain = 1.0f;
  float dark_offset = 100.0f;
  // Read noise in photoelectrons.
  float read_noise = 2.2f;
  // Objects of the scene relative to the typical one.
  double density = 1.0;
};

// 12 bits, read noise 2.2 e, a typical number of cells.
inline const Kind kCamera12{"camera12", 4095.0f, 1.0f, 100.0f, 2.2f, 1.0};
// 8 bits at low light (0.06 counts per electron): few objects, most pixels near the offset.
inline const Kind kSparse8{"sparse8", 255.0f, 0.06f, 10.0f, 1.2f, 0.25};
// 16 bits at high gain (16 counts per electron): many objects, many noisy low bits.
inline const Kind kDense16{"dense16", 65535.0f, 16.0f, 400.0f, 1.6f, 3.0};

class MicroscopyData {
 public:
  explicit MicroscopyData(const Kind& kind = kCamera12, std::size_t width = 2048,
                          std::size_t height = 2048, std::uint64_t seed = 20240611)
      : kind_(kind), width_(width), height_(height), seed_(seed), scene_(width * height) {
    for (std::size_t i = 0; i < normal_quantiles_.size(); ++i) {
      const double p = (static_cast<double>(i) + 0.5) / static_cast<double>(kQuantiles);
      normal_quantiles_[i] =
          static_cast<float>(std::numbers::sqrt2 * boost::math::erf_inv(2.0 * p - 1.0));
    }
    paint_scene();
  }

  std::size_t width() const { return width_; }
  std::size_t height() const { return height_; }
  std::size_t plane_samples() const { return width_ * height_; }

  // Fills `out` (plane_samples() values) with plane z.
  void fill_plane(std::uint64_t z, std::span<std::uint16_t> out) const {
    if (out.size() != plane_samples()) throw std::invalid_argument("Plane buffer size mismatch.");
    const float fade = static_cast<float>(std::exp(-static_cast<double>(z) / 400.0));
    const float read_variance = kind_.read_noise * kind_.read_noise;
    SplitMix64 random{seed_ ^ (0xD1B54A32D192ED03ULL * (z + 1))};
    for (std::size_t i = 0; i < out.size(); i += 4) {
      std::uint64_t bits = random.next();
      const std::size_t end = std::min(out.size(), i + 4);
      for (std::size_t k = i; k < end; ++k, bits >>= 16) {
        const float electrons = fade * scene_[k];
        const float value =
            kind_.dark_offset + kind_.gain * (electrons + std::sqrt(read_variance + electrons) *
                                                              normal_quantiles_[bits & 0xFFFF]);
        out[k] = static_cast<std::uint16_t>(std::clamp(value + 0.5f, 0.0f, kind_.max_value));
      }
    }
  }

  // Planes [first, first + count), one behind the other.
  std::vector<std::uint16_t> planes(std::uint64_t first, std::uint64_t count) const {
    std::vector<std::uint16_t> values(plane_samples() * count);
    for (std::uint64_t z = 0; z < count; ++z) {
      fill_plane(first + z, std::span(values).subspan(z * plane_samples(), plane_samples()));
    }
    return values;
  }

 private:
  static constexpr std::size_t kQuantiles = 65536;
  // The brightest mean signal, in photoelectrons: with the offset and five standard deviations
  // of noise above it, still below the largest count of the 12-bit camera.
  static constexpr float kSaturation = 3600.0f;
  static constexpr double kPsfSigma = 1.6;

  // A small, fast generator whose sequence is fixed by its seed on every platform.
  struct SplitMix64 {
    std::uint64_t state;
    std::uint64_t next() {
      std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
      return z ^ (z >> 31);
    }
    // Uniform in [lo, hi).
    double uniform(double lo, double hi) {
      return lo + (hi - lo) * static_cast<double>(next() >> 11) * 0x1p-53;
    }
  };

  void paint_scene() {
    SplitMix64 random{seed_};
    const double w = static_cast<double>(width_);
    const double h = static_cast<double>(height_);
    const double area = kind_.density * w * h / (2048.0 * 2048.0);
    constexpr double kTau = 2.0 * std::numbers::pi;
    // Autofluorescence of the medium: a few photoelectrons, varying smoothly.
    for (std::size_t y = 0; y < height_; ++y) {
      for (std::size_t x = 0; x < width_; ++x) {
        scene_[y * width_ + x] =
            static_cast<float>(3.0 + 2.0 * std::sin(kTau * 1.5 * static_cast<double>(x) / w + 0.7) *
                                         std::cos(kTau * 1.1 * static_cast<double>(y) / h + 0.3));
      }
    }
    // Cells: a dim, elongated body and a bright nucleus inside it.
    const auto cells = static_cast<int>(45 * area);
    for (int c = 0; c < cells; ++c) {
      const double cx = random.uniform(0, w);
      const double cy = random.uniform(0, h);
      add_gaussian(cx, cy, random.uniform(14, 42), random.uniform(10, 30),
                   random.uniform(0, std::numbers::pi), random.uniform(80, 450));
      add_gaussian(cx + random.uniform(-6, 6), cy + random.uniform(-6, 6), random.uniform(6, 13),
                   random.uniform(5, 11), random.uniform(0, std::numbers::pi),
                   random.uniform(600, 2600));
    }
    // Vesicles: point sources that the blur below turns into spots.
    const auto vesicles = static_cast<int>(900 * area);
    for (int v = 0; v < vesicles; ++v) {
      splat(random.uniform(0, w), random.uniform(0, h),
            static_cast<float>(random.uniform(2000, 12000)));
    }
    // Filaments: smooth random curves of steady brightness per unit of length.
    const auto filaments = static_cast<int>(90 * area);
    for (int f = 0; f < filaments; ++f) {
      double x = random.uniform(0, w);
      double y = random.uniform(0, h);
      double angle = random.uniform(0, kTau);
      const double length = random.uniform(150, 1100);
      const auto per_step = static_cast<float>(0.5 * random.uniform(150, 900));
      for (double s = 0; s < length; s += 0.5) {
        splat(x, y, per_step);
        angle += random.uniform(-0.06, 0.06);
        x += 0.5 * std::cos(angle);
        y += 0.5 * std::sin(angle);
      }
    }
    blur(kPsfSigma);
    for (float& s : scene_) s = kSaturation * std::tanh(std::max(s, 0.0f) / kSaturation);
  }

  // Adds an elliptic Gaussian of peak `amplitude`, axes' deviations sx and sy, turned by `angle`.
  void add_gaussian(double cx, double cy, double sx, double sy, double angle, double amplitude) {
    const double reach = 3.5 * std::max(sx, sy);
    const double cosa = std::cos(angle);
    const double sina = std::sin(angle);
    const auto x0 = static_cast<std::ptrdiff_t>(std::max(0.0, std::floor(cx - reach)));
    const auto y0 = static_cast<std::ptrdiff_t>(std::max(0.0, std::floor(cy - reach)));
    const auto x1 = static_cast<std::ptrdiff_t>(
        std::min(static_cast<double>(width_) - 1, std::ceil(cx + reach)));
    const auto y1 = static_cast<std::ptrdiff_t>(
        std::min(static_cast<double>(height_) - 1, std::ceil(cy + reach)));
    for (std::ptrdiff_t y = y0; y <= y1; ++y) {
      for (std::ptrdiff_t x = x0; x <= x1; ++x) {
        const double dx = static_cast<double>(x) - cx;
        const double dy = static_cast<double>(y) - cy;
        const double u = (dx * cosa + dy * sina) / sx;
        const double v = (dy * cosa - dx * sina) / sy;
        scene_[static_cast<std::size_t>(y) * width_ + static_cast<std::size_t>(x)] +=
            static_cast<float>(amplitude * std::exp(-0.5 * (u * u + v * v)));
      }
    }
  }

  // Spreads `amount` over the four pixels around (x, y), bilinearly; nothing outside the scene.
  void splat(double x, double y, float amount) {
    const double fx = std::floor(x);
    const double fy = std::floor(y);
    const auto wx = static_cast<float>(x - fx);
    const auto wy = static_cast<float>(y - fy);
    const float weights[4] = {(1 - wx) * (1 - wy), wx * (1 - wy), (1 - wx) * wy, wx * wy};
    for (int k = 0; k < 4; ++k) {
      const double px = fx + (k & 1);
      const double py = fy + (k >> 1);
      if (px < 0 || py < 0 || px >= static_cast<double>(width_) ||
          py >= static_cast<double>(height_)) {
        continue;
      }
      scene_[static_cast<std::size_t>(py) * width_ + static_cast<std::size_t>(px)] +=
          amount * weights[k];
    }
  }

  // A separable Gaussian blur of deviation `sigma` pixels, edges repeated.
  void blur(double sigma) {
    const auto radius = static_cast<std::ptrdiff_t>(std::ceil(3.0 * sigma));
    std::vector<float> kernel(static_cast<std::size_t>(2 * radius + 1));
    double sum = 0;
    for (std::ptrdiff_t k = -radius; k <= radius; ++k) {
      sum += std::exp(-0.5 * static_cast<double>(k * k) / (sigma * sigma));
    }
    for (std::ptrdiff_t k = -radius; k <= radius; ++k) {
      kernel[static_cast<std::size_t>(k + radius)] =
          static_cast<float>(std::exp(-0.5 * static_cast<double>(k * k) / (sigma * sigma)) / sum);
    }
    const auto w = static_cast<std::ptrdiff_t>(width_);
    const auto h = static_cast<std::ptrdiff_t>(height_);
    const auto at = [](std::ptrdiff_t i) { return static_cast<std::size_t>(i); };
    std::vector<float> rows(scene_.size());
    for (std::ptrdiff_t y = 0; y < h; ++y) {
      for (std::ptrdiff_t x = 0; x < w; ++x) {
        float acc = 0;
        for (std::ptrdiff_t k = -radius; k <= radius; ++k) {
          acc += kernel[at(k + radius)] *
                 scene_[at(y * w + std::clamp(x + k, std::ptrdiff_t{0}, w - 1))];
        }
        rows[at(y * w + x)] = acc;
      }
    }
    std::fill(scene_.begin(), scene_.end(), 0.0f);
    for (std::ptrdiff_t y = 0; y < h; ++y) {
      for (std::ptrdiff_t k = -radius; k <= radius; ++k) {
        const float weight = kernel[at(k + radius)];
        const float* source = &rows[at(std::clamp(y + k, std::ptrdiff_t{0}, h - 1) * w)];
        float* target = &scene_[at(y * w)];
        for (std::ptrdiff_t x = 0; x < w; ++x) target[x] += weight * source[x];
      }
    }
  }

  Kind kind_;
  std::size_t width_;
  std::size_t height_;
  std::uint64_t seed_;
  // Mean photoelectrons of each pixel of the scene, before bleaching.
  std::vector<float> scene_;
  // Standard normal quantiles at (i + 0.5) / kQuantiles: a normal deviate per 16 random bits.
  std::array<float, kQuantiles> normal_quantiles_{};
};

}  // namespace tarnio_bench

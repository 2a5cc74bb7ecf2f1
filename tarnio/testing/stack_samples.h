#pragma once

// Samples for stacks in tests: numbered_samples(seed, count) gives 16-bit samples like a
// camera's, an offset with noise, smooth enough to compress and noisy enough to need real deflate
// blocks, different for every seed; read_all_samples(stack) reads a whole uint16 stack. For
// tests only.

#include <cstdint>
#include <span>
#include <vector>

#include "tarnio/bf/stack_imp.h"

namespace Tarn::testing {

inline std::vector<std::uint16_t> numbered_samples(std::uint64_t seed, std::uint64_t count) {
  std::vector<std::uint16_t> samples(count);
  std::uint32_t x = static_cast<std::uint32_t>(seed) * 2654435761u + 1;
  for (auto& sample : samples) {
    x = x * 1664525u + 1013904223u;
    sample = static_cast<std::uint16_t>(100 + (x >> 28) + (seed & 0xFF));
  }
  return samples;
}

inline std::vector<std::uint16_t> read_all_samples(bf::StackImp& stack) {
  std::vector<std::uint16_t> samples(stack.number_of_elements());
  if (!samples.empty()) stack.read(0, std::span<std::uint16_t>(samples));
  return samples;
}

}  // namespace Tarn::testing

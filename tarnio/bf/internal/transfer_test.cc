#include "tarnio/bf/internal/transfer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Tarn::bf::internal {
namespace {

using Calls = std::vector<std::pair<std::uint64_t, std::size_t>>;  // offset, count

TEST(TransferAll, SplitsBlocksLargerThanAPiece) {
  const std::uint64_t n = 5 * kMaxTransferPiece + 3;
  Calls calls;
  const TransferResult result = transfer_all(n, [&](std::uint64_t offset, std::size_t count) {
    calls.emplace_back(offset, count);
    return static_cast<ssize_t>(count);
  });
  EXPECT_EQ(result.done, n);
  EXPECT_EQ(result.error, 0);
  Calls want;
  for (std::uint64_t i = 0; i < 5; ++i) want.emplace_back(i * kMaxTransferPiece, kMaxTransferPiece);
  want.emplace_back(5 * kMaxTransferPiece, 3);
  EXPECT_EQ(calls, want);
}

TEST(TransferAll, RetriesInterruptedCallsAndContinuesAfterShortOnes) {
  Calls calls;
  const TransferResult result = transfer_all(20, [&](std::uint64_t offset, std::size_t count) {
    calls.emplace_back(offset, count);
    if (calls.size() % 2 == 1) {
      errno = EINTR;
      return ssize_t{-1};
    }
    return static_cast<ssize_t>(std::min<std::size_t>(count, 7));
  });
  EXPECT_EQ(result.done, 20u);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(calls, (Calls{{0, 20}, {0, 20}, {7, 13}, {7, 13}, {14, 6}, {14, 6}}));
}

}  // namespace
}  // namespace Tarn::bf::internal

#include "tarnio/bf/internal/transfer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tarn::bf::internal {
namespace {

struct Call {
  std::uint64_t offset;
  std::size_t count;
};

TEST(TransferAll, SplitsBlocksLargerThanAPiece) {
  const std::uint64_t n = 5 * kMaxTransferPiece + 3;
  std::vector<Call> calls;
  const TransferResult result = transfer_all(n, [&](std::uint64_t offset, std::size_t count) {
    calls.push_back({offset, count});
    return static_cast<ssize_t>(count);
  });
  EXPECT_EQ(result.done, n);
  EXPECT_EQ(result.error, 0);
  ASSERT_EQ(calls.size(), 6u);
  std::uint64_t expected_offset = 0;
  for (const Call& call : calls) {
    EXPECT_EQ(call.offset, expected_offset);
    EXPECT_LE(call.count, kMaxTransferPiece);
    expected_offset += call.count;
  }
  EXPECT_EQ(calls.back().count, 3u);
}

TEST(TransferAll, RetriesInterruptedCallsAndContinuesAfterShortOnes) {
  std::vector<Call> calls;
  const TransferResult result = transfer_all(20, [&](std::uint64_t offset, std::size_t count) {
    calls.push_back({offset, count});
    if (calls.size() % 2 == 1) {
      errno = EINTR;
      return ssize_t{-1};
    }
    return static_cast<ssize_t>(std::min<std::size_t>(count, 7));
  });
  EXPECT_EQ(result.done, 20u);
  EXPECT_EQ(result.error, 0);
  ASSERT_EQ(calls.size(), 6u);
  EXPECT_EQ(calls[3].offset, 7u);
  EXPECT_EQ(calls[3].count, 13u);
  EXPECT_EQ(calls[5].offset, 14u);
}

}  // namespace
}  // namespace Tarn::bf::internal

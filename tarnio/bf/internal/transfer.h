#pragma once

// transfer_all: the loop that moves a block of any size through read(2)- or write(2)-like
// calls, which may be interrupted by a signal or move fewer bytes than asked. Stateless.

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace Tarn::bf::internal {

// The most one call moves: well below what Linux moves at once (0x7ffff000 bytes).
inline constexpr std::uint64_t kMaxTransferPiece = std::uint64_t{1} << 30;

struct TransferResult {
  std::uint64_t done = 0;
  // The errno of the call that failed; 0 when all bytes moved or a call moved none.
  int error = 0;
};

// Calls call(offset, count), which moves up to count bytes at offset into the block and returns
// how many it moved or -1 with errno set, until n bytes have moved, a call moves none or one
// fails with anything but EINTR.
template <typename Call>
TransferResult transfer_all(std::uint64_t n, Call&& call) {
  TransferResult result;
  while (result.done < n) {
    const auto count = static_cast<std::size_t>(std::min(n - result.done, kMaxTransferPiece));
    const ssize_t moved = call(result.done, count);
    if (moved < 0) {
      if (errno == EINTR) continue;
      result.error = errno;
      break;
    }
    if (moved == 0) break;
    result.done += static_cast<std::uint64_t>(moved);
  }
  return result;
}

}  // namespace Tarn::bf::internal

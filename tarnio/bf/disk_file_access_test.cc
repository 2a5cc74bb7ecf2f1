#include "tarnio/bf/disk_file_access.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>

#include "tarnio/bf/disk_file.h"
#include "tarnio/errors/tarn_error.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Mode = DiskFile::Mode;
using Tarn::testing::TempDir;

TEST(DiskFileAccessStrings, RoundTripWithLittleEndianLengths) {
  TempDir dir;
  const std::string binary("a\0\xff\n", 4);
  const std::string long_text(0x0102, 'q');
  DiskFile file(dir / "strings.tbf", Mode::write);
  file.write_str(long_text);
  file.write_str(binary, true);
  file.write_str("", true);
  file.write_str("raw", false);
  EXPECT_EQ(file.size(), 4 + long_text.size() + 4 + binary.size() + 4 + 3);
  file.seek(0);
  std::string text;
  file.read_str(text, 4);
  EXPECT_EQ(text, std::string("\x02\x01\0\0", 4));

  file.seek(0);
  const std::pair<std::uint64_t, std::string> kReads[] = {{DiskFileAccess::kNpos, long_text},
                                                          {DiskFileAccess::kNpos, binary},
                                                          {DiskFileAccess::kNpos, ""},
                                                          {0, ""},
                                                          {3, "raw"}};
  for (const auto& [length, want] : kReads) {
    text = "stale";
    file.read_str(text, length);
    EXPECT_EQ(text, want);
  }
}

TEST(DiskFileAccessStrings, LengthBeyondTheEndIsRefusedBeforeAllocating) {
  TempDir dir;
  DiskFile file(dir / "damaged.tbf", Mode::write);
  file.write_str(std::string("\xf0\xff\xff\xff", 4), false);
  file.write_str("abc", false);
  file.seek(0);
  std::string text = "keep";
  EXPECT_THROW_MESSAGE(file.read_str(text), TarnError,
                       "Failed reading 4294967280 bytes from file: File too short.");
  EXPECT_EQ(text, "keep");
  EXPECT_EQ(file.tell(), 4u);
  EXPECT_THROW_MESSAGE(file.read_str(text, std::uint64_t{1} << 62), TarnError,
                       "Failed reading 4611686018427387904 bytes from file: File too short.");
  // Only the 3 bytes behind the damaged length are left; they do not hold a length.
  EXPECT_THROW_MESSAGE(file.read_str(text), TarnError,
                       "Failed reading 4 bytes from file: File too short.");
  EXPECT_EQ(text, "keep");
  file.seek(4);
  file.read_str(text, 3);
  EXPECT_EQ(text, "abc");
}

}  // namespace
}  // namespace Tarn::bf

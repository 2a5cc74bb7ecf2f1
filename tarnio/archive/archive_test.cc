#include "tarnio/archive/archive.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>

#include "tarnio/archive/file_archive.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/stack_factory/create_stack.h"
#include "tarnio/stack_factory/get_kalix.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"
#include "tarnio/testing/tree_files.h"

namespace {

namespace fs = std::filesystem;
using Shape = std::vector<std::uint64_t>;
using Tarn::testing::slurp_file;
using Tarn::testing::spill_file;
using Tarn::testing::TempDir;

TEST(Archive, PackedStacksAreSquaresJustLargerThanTheBlob) {
  TempDir dir;
  fs::create_directory(dir / "t");
  const auto empty = Kalix::Archive::pack(dir / "t", "empty", "id");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->shape(), (Shape{13, 13, 1, 1}));
  EXPECT_EQ(empty->type(), Tarn::dt::uint8);

  spill_file(dir / "t/a", "0123456789");
  EXPECT_EQ(Kalix::Archive::pack(dir / "t", "", "")->shape(), (Shape{14, 14, 1, 1}));

  for (const std::uint64_t root : {1ull, 12ull, 13ull, 4294967295ull, 3037000499ull}) {
    SCOPED_TRACE(root);
    EXPECT_EQ(Kalix::Archive::stack_side(root * root - 1), root);
    EXPECT_EQ(Kalix::Archive::stack_side(root * root), root + 1);
  }
}

TEST(Archive, UnpackChecksTheSignatureOnly) {
  TempDir dir;
  EXPECT_THROW_MESSAGE(Kalix::Archive::unpack(nullptr, dir / "o"), std::runtime_error,
                       "cannot unpack empty stack");
  EXPECT_THROW_MESSAGE(Kalix::Archive::unpack(Tarn::create_stack(Tarn::dt::uint8, {0}), dir / "o"),
                       std::runtime_error, "cannot unpack empty stack");
  // An empty blob of version 0xFFFFFFFF, then damaged signatures; the last has no zero byte.
  std::string blob = std::string("KLXDTA\0\xff\xff\xff\xff", 11) + std::string(144, '\0');
  for (const std::string& bytes :
       {blob, std::string("KLXDTB\0", 7), std::string("KLXDTAX"), std::string("KLXDTA")}) {
    std::shared_ptr<Tarn::arrays::StackInterface> stack =
        Tarn::create_stack(bytes.size() > 7 ? Tarn::dt::double_ : Tarn::dt::uint8,
                           {bytes.size() > 7 ? 20u : bytes.size()});
    std::memcpy(stack->bytes().data(), bytes.data(), bytes.size());
    if (bytes.size() > 7) {
      EXPECT_EQ(Kalix::Archive::unpack(stack, dir / "o").version, 0xffffffffu);
    } else {
      EXPECT_THROW_MESSAGE(Kalix::Archive::unpack(stack, dir / "o"), std::runtime_error,
                           "signature mismatch");
    }
  }
  EXPECT_TRUE(fs::is_empty(dir / "o"));
}

TEST(Archive, IdentifiersAndDescriptions) {
  std::set<std::string> seen;
  const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  for (int i = 0; i < 200; ++i) {
    const std::string uid = Kalix::make_uid();
    EXPECT_TRUE(std::regex_match(uid, form)) << uid;
    seen.insert(uid);
  }
  EXPECT_EQ(seen.size(), 200u);

  EXPECT_EQ(Kalix::Archive::infer_data_aid(JSON::Value::object({{"did", "D"}, {"aid", 3}})), "D");
  EXPECT_EQ(Kalix::Archive::infer_liveview_sid(JSON::Value::object({{"aid", "A"}})), "A");

  // get_kalix reads JSON tags only.
  auto stack = Tarn::create_stack(Tarn::dt::uint8, {1});
  EXPECT_TRUE(Tarn::get_kalix(*stack).is_null());
  stack->set_tag("kalix", TProp());
  EXPECT_TRUE(Tarn::get_kalix(*stack).is_null());
}

TEST(Archive, FileStacksHoldTheSameBytesAndTagAsMemoryStacks) {
  TempDir dir;
  spill_file(dir / "in/zarr/klx/.zattrs", R"({"did": "d", "other": 1})");
  spill_file(dir / "in/zarr/locs/0", std::string(300000, 'z'));
  const auto memory = Kalix::Archive::pack(dir / "in", "L", "A");
  EXPECT_EQ(Tarn::get_kalix(*memory), Kalix::Archive::describe("A", "d", "L"));
  EXPECT_EQ(Kalix::Archive::read_did(dir / "in/zarr"), "");  // no attributes, no identifier
  spill_file(dir / "bad/zarr/klx/.zattrs", R"({"did": 5})");
  EXPECT_THROW(Kalix::Archive::pack(dir / "bad", "", ""), std::runtime_error);
  {
    const auto file = Tarn::create_file();
    file->open(dir / "f.tbf", Tarn::bf::DiskFile::Mode::write);
    Kalix::Archive::pack_to_file(*file, dir / "in", "L", "A",
                                 [](auto& stack) { stack.set_name("named"); });
    file->close();
  }
  const auto file = Tarn::open_file(dir / "f.tbf", Tarn::bf::DiskFile::Mode::read);
  const auto stack = file->stack(0);
  EXPECT_EQ(stack->shape(), memory->shape());
  EXPECT_EQ(stack->name(), "named");
  EXPECT_EQ(Tarn::get_kalix(*stack), Tarn::get_kalix(*memory));
  std::vector<std::byte> stored(stack->number_of_elements());
  stack->read(0, stored.size(), stored.data());
  // The headers differ in their time at most.
  std::memcpy(stored.data() + 11, memory->bytes().data() + 11, 8);
  EXPECT_TRUE(std::ranges::equal(stored, memory->bytes()));

  // Unpacking replaces files of the same name and keeps others.
  spill_file(dir / "out/zarr/locs/0", "stale");
  spill_file(dir / "out/mine", "kept");
  Kalix::Archive::unpack_from_file(*stack, dir / "out");
  auto expected = Tarn::testing::tree_of(dir / "in");
  expected["mine"] = "kept";
  EXPECT_EQ(Tarn::testing::tree_of(dir / "out"), expected);
}

}  // namespace

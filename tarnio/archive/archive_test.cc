#include "tarnio/archive/archive.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

#include "tarnio/archive/file_archive.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/stack_factory/create_stack.h"
#include "tarnio/stack_factory/get_kalix.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using Shape = std::vector<std::uint64_t>;
using Tarn::testing::TempDir;

void spill(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(Archive, PackedStacksAreSquaresJustLargerThanTheBlob) {
  TempDir dir;
  fs::create_directory(dir / "t");
  const auto empty = Kalix::Archive::pack(dir / "t", "empty", "id");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->shape(), (Shape{13, 13, 1, 1}));
  EXPECT_EQ(empty->type(), Tarn::dt::uint8);
  // The unused tail stays as the new stack holds it.
  for (std::size_t i = 155; i < 169; ++i) EXPECT_EQ(empty->bytes()[i], std::byte{0});

  spill(dir / "t/a", "0123456789");
  EXPECT_EQ(Kalix::Archive::pack(dir / "t", "", "")->shape(), (Shape{14, 14, 1, 1}));

  for (const std::uint64_t root : {1ull, 12ull, 13ull, 4294967295ull, 3037000499ull}) {
    SCOPED_TRACE(root);
    EXPECT_EQ(Kalix::Archive::stack_side(root * root - 1), root);
    EXPECT_EQ(Kalix::Archive::stack_side(root * root), root + 1);
  }
}

TEST(Archive, PackTagsTheStackAndUnpackRestoresTheTree) {
  TempDir dir;
  spill(dir / "in/zarr/klx/.zattrs", R"({"did": "d-42", "other": 1})");
  spill(dir / "in/zarr/locs/.zarray", R"({"shape": [3]})");
  spill(dir / "in/zarr/locs/0", std::string(5000, '\x7f'));
  auto stack = Kalix::Archive::pack(dir / "in", "run 1", "a-7");
  ASSERT_NE(stack, nullptr);
  const JSON::Value expected = JSON::Value::object(
      {{"aid", "a-7"}, {"did", "d-42"}, {"label", "run 1"}, {"type", "data"}, {"sid", "d-42"}});
  EXPECT_EQ(Tarn::get_kalix(*stack), expected);

  EXPECT_EQ(Kalix::Archive::read_did(dir / "in"), "d-42");
  EXPECT_EQ(Kalix::Archive::read_did(dir / "in/zarr"), "");  // no attributes: no identifier

  fs::create_directories(dir / "out");
  spill(dir / "out/zarr/locs/0", "stale");
  spill(dir / "out/zarr/mine", "kept");
  const Kalix::Blob::Header header = Kalix::Archive::unpack(std::move(stack), dir / "out");
  EXPECT_EQ(header.version, Kalix::Blob::current_version);
  for (const char* name : {"zarr/klx/.zattrs", "zarr/locs/.zarray", "zarr/locs/0"}) {
    EXPECT_EQ(slurp(dir / "out" / name), slurp(dir / "in" / name)) << name;
  }
  EXPECT_EQ(slurp(dir / "out/zarr/mine"), "kept");

  spill(dir / "bad/zarr/klx/.zattrs", R"({"did": 5})");
  EXPECT_THROW(Kalix::Archive::pack(dir / "bad", "", ""), std::runtime_error);
}

TEST(Archive, UnpackChecksTheSignatureOnly) {
  TempDir dir;
  EXPECT_THROW_MESSAGE(Kalix::Archive::unpack(nullptr, dir / "o"), std::runtime_error,
                       "cannot unpack empty stack");
  EXPECT_THROW_MESSAGE(
      Kalix::Archive::unpack(Tarn::create_stack(Tarn::dt::uint8, {0, 4}), dir / "o"),
      std::runtime_error, "cannot unpack empty stack");

  auto with_bytes = [](const std::string& text) {
    std::shared_ptr<Tarn::arrays::StackInterface> stack =
        Tarn::create_stack(Tarn::dt::uint8, {std::max<std::uint64_t>(text.size(), 155)});
    std::memcpy(stack->bytes().data(), text.data(), text.size());
    return stack;
  };
  for (const std::string& bad : {std::string("KLXDTB", 7), std::string("KLXDTAX")}) {
    EXPECT_THROW_MESSAGE(Kalix::Archive::unpack(with_bytes(bad), dir / "o"), std::runtime_error,
                         "signature mismatch");
  }
  std::shared_ptr<Tarn::arrays::StackInterface> six = Tarn::create_stack(Tarn::dt::uint8, {6});
  std::memcpy(six->bytes().data(), "KLXDTA", 6);  // no room for the zero byte
  EXPECT_THROW_MESSAGE(Kalix::Archive::unpack(six, dir / "o"), std::runtime_error,
                       "signature mismatch");
  // Any version, and a stack of another element type, unpack alike.
  std::string blob("KLXDTA\0", 7);
  blob += std::string("\xff\xff\xff\xff", 4) + std::string(136 + 8, '\0');
  EXPECT_EQ(Kalix::Archive::unpack(with_bytes(blob), dir / "o").version, 0xffffffffu);
  auto wide = Tarn::create_stack(Tarn::dt::double_, {20});
  std::memcpy(wide->bytes().data(), blob.data(), blob.size());
  EXPECT_EQ(Kalix::Archive::unpack(std::move(wide), dir / "o").version, 0xffffffffu);
  EXPECT_TRUE(fs::is_empty(dir / "o"));
}

TEST(Archive, IdentifiersAndDescriptions) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string uid = Kalix::make_uid();
    ASSERT_EQ(uid.size(), 36u) << uid;
    for (std::size_t k = 0; k < uid.size(); ++k) {
      const bool dash = k == 8 || k == 13 || k == 18 || k == 23;
      ASSERT_EQ(uid[k] == '-', dash) << uid;
      if (!dash) {
        ASSERT_NE(std::string("0123456789abcdef").find(uid[k]), std::string::npos) << uid;
      }
    }
    EXPECT_EQ(uid[14], '4') << uid;
    EXPECT_NE(std::string("89ab").find(uid[19]), std::string::npos) << uid;
    seen.insert(uid);
  }
  EXPECT_EQ(seen.size(), 200u);

  const JSON::Value full = Kalix::Archive::describe("A", "D", "L");
  EXPECT_EQ(Kalix::Archive::infer_data_aid(full), "A");
  EXPECT_EQ(Kalix::Archive::infer_liveview_sid(full), "D");
  const JSON::Value no_aid = JSON::Value::object({{"did", "D"}, {"aid", 3}});
  EXPECT_EQ(Kalix::Archive::infer_data_aid(no_aid), "D");
  EXPECT_EQ(Kalix::Archive::infer_liveview_sid(JSON::Value::object({{"aid", "A"}})), "A");
  EXPECT_EQ(Kalix::Archive::infer_data_aid(JSON::Value()), "");

  // get_kalix reads JSON tags only.
  auto stack = Tarn::create_stack(Tarn::dt::uint8, {1});
  EXPECT_TRUE(Tarn::get_kalix(*stack).is_null());
  stack->set_tag("kalix", TProp());
  EXPECT_TRUE(Tarn::get_kalix(*stack).is_null());
  stack->set_tag("kalix", full);
  EXPECT_EQ(Tarn::get_kalix(*stack), full);
}

TEST(Archive, FileStacksHoldTheSameBytesAndTagAsMemoryStacks) {
  TempDir dir;
  spill(dir / "in/zarr/klx/.zattrs", R"({"did": "d"})");
  spill(dir / "in/zarr/locs/0", std::string(300000, 'z'));
  const auto memory = Kalix::Archive::pack(dir / "in", "L", "A");
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

  Kalix::Archive::unpack_from_file(*stack, dir / "out");
  EXPECT_EQ(slurp(dir / "out/zarr/locs/0"), slurp(dir / "in/zarr/locs/0"));
}

}  // namespace

#include "tarnio/archive/blob.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"
#include "tarnio/testing/tree_files.h"

namespace {

namespace fs = std::filesystem;
using Kalix::Blob::buffer_to_fs;
using Kalix::Blob::get_fs_size;
using Tarn::testing::spill_file;
using Tarn::testing::TempDir;
using Tarn::testing::tree_of;
using Bytes = std::vector<std::byte>;

Bytes blob_of(const fs::path& root, Kalix::Blob::Header header = {}) {
  Bytes blob(get_fs_size(root));
  Kalix::Blob::fs_to_buffer(header, blob.data(), blob.size(), root);
  return blob;
}

// A blob built by hand, record by record, for damaged and hostile input.
struct BlobBuilder {
  Bytes bytes = Bytes(147);
  BlobBuilder() { std::memcpy(bytes.data(), "KLXDTA", 7); }
  BlobBuilder& raw(const void* data, std::size_t n) {
    const auto* p = static_cast<const std::byte*>(data);
    bytes.insert(bytes.end(), p, p + n);
    return *this;
  }
  BlobBuilder& number(std::uint64_t value) { return raw(&value, 8); }
  BlobBuilder& text(const std::string& s) { return raw(s.data(), s.size()); }
  BlobBuilder& kind(std::uint8_t k) { return raw(&k, 1); }
  BlobBuilder& directory(const std::string& path) { return number(path.size()).text(path).kind(1); }
  BlobBuilder& file(const std::string& path, const std::string& contents) {
    return number(path.size()).text(path).kind(0).number(contents.size()).text(contents);
  }
  Bytes end() { return number(0).bytes; }
};

TEST(Blob, SizesFollowTheRecordsAndMatchWhatIsWritten) {
  TempDir dir;
  fs::create_directory(dir / "t");
  EXPECT_EQ(get_fs_size(dir / "t"), 155u);
  spill_file(dir / "t/a", "0123456789");
  EXPECT_EQ(get_fs_size(dir / "t"), 183u);

  // Byte by byte at the documented offsets.
  Kalix::Blob::Header header;
  header.reserved[5] = 7;  // carried as given
  const Bytes blob = blob_of(dir / "t", header);
  const Bytes expected = [&] {
    BlobBuilder b;
    const std::uint32_t version = 3;
    std::memcpy(b.bytes.data() + 7, &version, 4);
    std::memcpy(b.bytes.data() + 11, &header.time, 8);
    b.bytes[19 + 5] = std::byte{7};
    return b.file("a", "0123456789").end();
  }();
  EXPECT_EQ(blob, expected);
  EXPECT_NEAR(static_cast<double>(header.time), static_cast<double>(std::time(nullptr)), 60.0);

  // A deeper tree: the streamed blob, the buffer and the measured size agree.
  spill_file(dir / "t/zarr/klx/.zattrs", R"({"did": "x"})");
  spill_file(dir / "t/zarr/locs/0.0", std::string(10000, 'q'));
  fs::create_directories(dir / "t/zarr/empty");
  const Bytes whole = blob_of(dir / "t", header);
  Bytes streamed;
  Kalix::Blob::fs_to_sink(header, dir / "t", whole.size(), [&](std::span<const std::byte> piece) {
    streamed.insert(streamed.end(), piece.begin(), piece.end());
  });
  EXPECT_EQ(streamed, whole);
  // A buffer or an announced size that the tree outgrew is refused.
  Bytes small(whole.size() - 1);
  EXPECT_THROW_MESSAGE(Kalix::Blob::fs_to_buffer(header, small.data(), small.size(), dir / "t"),
                       std::runtime_error, "The tree changed while it was packed.");
  EXPECT_THROW_MESSAGE(Kalix::Blob::fs_to_sink(header, dir / "t", whole.size() + 1, [](auto) {}),
                       std::runtime_error, "The tree changed while it was packed.");
}

TEST(Blob, DamagedOrHostileBlobsWriteNothing) {
  const std::string past = "runs past the end of the blob";
  const struct {
    const char* what;
    Bytes blob;
    std::string message;
  } cases[] = {
      {"short header", Bytes(100), "Archive blob of 100 bytes is too short for its header."},
      {"no terminator", BlobBuilder().file("a", "x").bytes,
       "Archive blob ends without its terminator."},
      {"path past end", BlobBuilder().number(1000).text("abc").bytes, past},
      {"contents past end", BlobBuilder().number(1).text("a").kind(0).number(~0ull).end(), past},
      {"kind missing", BlobBuilder().number(1).text("a").bytes, past},
      {"unknown kind", BlobBuilder().number(1).text("a").kind(2).end(), "unknown kind 2"},
      {"absolute", BlobBuilder().file("ok", "1").file("/etc/x", "").end(), "is absolute"},
      {"dot dot", BlobBuilder().directory("a").file("a/../../x", "").end(), "'..' component"},
      {"bare dot dot", BlobBuilder().directory("..").end(), "'..' component"},
      {"nul", BlobBuilder().file(std::string("a\0b", 3), "").end(), "NUL byte"},
      {"names nothing", BlobBuilder().file("./", "x").end(), "names nothing"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    try {
      buffer_to_fs(c.blob.data(), c.blob.size(), dir / "out");
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
      EXPECT_NE(std::string(error.what()).find(c.message), std::string::npos) << error.what();
    }
    EXPECT_FALSE(fs::exists(dir / "out"));
    EXPECT_EQ(tree_of(dir.path()).size(), 0u);
  }
}

TEST(Blob, UnpackingReplacesLinksInsteadOfFollowingThem) {
  TempDir dir;
  spill_file(dir / "outside/file", "precious");
  fs::create_directories(dir / "out");
  fs::create_symlink(dir / "outside/file", dir / "out/f");
  fs::create_directory_symlink(dir / "outside", dir / "out/d");
  fs::create_directory_symlink(dir / "outside", dir / "out/e");
  // "d/x" comes without a record of "d"; "e" has one.
  const Bytes blob = BlobBuilder().file("f", "new").file("d/x", "1").directory("e").end();
  buffer_to_fs(blob.data(), blob.size(), dir / "out");
  EXPECT_EQ(tree_of(dir / "outside"), (std::map<std::string, std::string>{{"file", "precious"}}));
  EXPECT_EQ(tree_of(dir / "out"), (std::map<std::string, std::string>{
                                      {"d", "/"}, {"d/x", "1"}, {"e", "/"}, {"f", "new"}}));
}

TEST(Blob, FailuresNameTheEntryAndLeaveNoPartialFile) {
  TempDir dir;
  // A directory where the file should go: the file cannot be put in place.
  fs::create_directories(dir / "out/a/sub");
  const Bytes blob = BlobBuilder().file("a", "abc").end();
  EXPECT_THROW_MESSAGE(buffer_to_fs(blob.data(), blob.size(), dir / "out"), std::runtime_error,
                       "error writing file " + (dir / "out/a").string() + ", 3 bytes");
  // A file where a directory should go.
  spill_file(dir / "out/b", "file");
  const Bytes nested = BlobBuilder().file("b/c", "abc").end();
  EXPECT_THROW(buffer_to_fs(nested.data(), nested.size(), dir / "out"), fs::filesystem_error);
  EXPECT_EQ(tree_of(dir / "out"),
            (std::map<std::string, std::string>{{"a", "/"}, {"a/sub", "/"}, {"b", "file"}}));

  // Packing refuses links and special files with their names.
  spill_file(dir / "in/file", "x");
  fs::create_symlink("file", dir / "in/link");
  EXPECT_THROW_MESSAGE(get_fs_size(dir / "in"), std::runtime_error,
                       "Cannot pack 'link': it is a symbolic link, and links are not stored.");
  fs::remove(dir / "in/link");
  ASSERT_EQ(::mkfifo((dir / "in/fifo").c_str(), 0600), 0);
  EXPECT_THROW_MESSAGE(get_fs_size(dir / "in"), std::runtime_error,
                       "Cannot pack 'fifo': it is neither a regular file nor a directory.");
  EXPECT_THROW(get_fs_size(dir / "missing"), fs::filesystem_error);
}

}  // namespace

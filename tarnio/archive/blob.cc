#include "tarnio/archive/blob.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tarnio/archive/internal/blob_format.h"
#include "tarnio/archive/internal/blob_writer.h"
#include "tarnio/archive/internal/record_reader.h"
#include "tarnio/archive/internal/target_directory.h"
#include "tarnio/archive/internal/tree_walk.h"

namespace Kalix::Blob {

namespace {

namespace fs = std::filesystem;
using namespace internal;

// The blob's bytes go to pieces of one block that is handed to a sink whenever it is full.
constexpr std::size_t kSinkBlock = std::size_t{4} << 20;

class BufferOutput final : public BlobOutput {
 public:
  BufferOutput(std::byte* buffer, std::uint64_t size) : buffer_(buffer), size_(size) {}
  std::span<std::byte> room() override {
    if (filled_ == size_) throw_tree_changed();
    return {buffer_ + filled_, static_cast<std::size_t>(size_ - filled_)};
  }
  void advance(std::size_t n) override { filled_ += n; }

 private:
  std::byte* buffer_;
  std::uint64_t size_;
  std::uint64_t filled_ = 0;
};

class SinkOutput final : public BlobOutput {
 public:
  SinkOutput(const Sink& sink, std::uint64_t size)
      : sink_(sink),
        left_(size),
        block_(static_cast<std::size_t>(std::min<std::uint64_t>(size, kSinkBlock))) {}
  std::span<std::byte> room() override {
    if (filled_ == block_.size()) flush();
    const std::uint64_t free = std::min<std::uint64_t>(block_.size() - filled_, left_ - filled_);
    if (free == 0) throw_tree_changed();
    return {block_.data() + filled_, static_cast<std::size_t>(free)};
  }
  void advance(std::size_t n) override { filled_ += n; }
  // Hands on the last piece; throws unless the blob reached its announced size.
  void finish() {
    flush();
    if (left_ != 0) throw_tree_changed();
  }

 private:
  void flush() {
    if (filled_ == 0) return;
    sink_(std::span<const std::byte>(block_.data(), filled_));
    left_ -= filled_;
    filled_ = 0;
  }

  const Sink& sink_;
  std::uint64_t left_;
  std::vector<std::byte> block_;
  std::size_t filled_ = 0;
};

}  // namespace

Header::Header()
    : signature{'K', 'L', 'X', 'D', 'T', 'A', '\0'},
      version(current_version),
      time(static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count())),
      reserved{} {}

std::uint64_t get_fs_size(const fs::path& path) {
  std::uint64_t size = kEmptyBlobSize;
  walk_tree(path,
            [&](const fs::directory_entry& entry, const std::string& relative, bool is_directory) {
              size += record_overhead(relative.size(), is_directory);
              if (!is_directory) size += entry.file_size();
            });
  return size;
}

void fs_to_buffer(Header header, std::byte* buffer, std::uint64_t size, const fs::path& directory) {
  BufferOutput out(buffer, size);
  write_blob(header, directory, out);
}

void fs_to_sink(Header header, const fs::path& directory, std::uint64_t size, const Sink& sink) {
  SinkOutput out(sink, size);
  write_blob(header, directory, out);
  out.finish();
}

Header buffer_to_fs(const std::byte* data, std::uint64_t size, const fs::path& directory) {
  // A first pass checks the whole blob, so that a damaged one writes nothing at all.
  RecordReader check(data, size);
  while (const std::optional<Record> record = check.next()) entry_components(record->path);

  TargetDirectory target(directory);
  RecordReader reader(data, size);
  while (const std::optional<Record> record = reader.next()) {
    const std::vector<std::string> components = entry_components(record->path);
    if (record->is_directory) {
      target.make_directory(components);
    } else {
      target.write_file(components, record->contents);
    }
  }
  return reader.header();
}

}  // namespace Kalix::Blob

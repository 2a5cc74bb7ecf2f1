#pragma once

// MemoryFile: a DiskFileAccess over bytes in memory that refuses to read past their end, like a
// file cut there. With `record` set it keeps every write and a copy of the bytes after it: the
// states a writer killed after that write leaves. For tests only.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/bf/disk_file_access.h"
#include "tarnio/errors/tarn_error.h"

namespace Tarn::testing {

class MemoryFile final : public bf::DiskFileAccess {
 public:
  using Bytes = std::vector<std::byte>;
  struct Write {
    std::uint64_t position;
    std::uint64_t size;
  };

  explicit MemoryFile(Bytes initial = {}, bool record = false, bf::ThreadingSupport threading = {})
      : bytes(std::move(initial)), record_(record), threading_(std::move(threading)) {}

  bool is_open_for_reading() const override { return true; }
  bool is_open_for_writing() const override { return true; }
  std::uint64_t tell() const override { return position_; }
  std::uint64_t seek(std::uint64_t pos) override {
    position_ = pos == kNpos ? bytes.size() : pos;
    return position_;
  }
  void read(void* buf, std::uint64_t n) override {
    if (position_ > bytes.size() || n > bytes.size() - position_) {
      throw TarnError()("Failed reading " + std::to_string(n) +
                        " bytes from file: File too short.");
    }
    if (n != 0) std::memcpy(buf, bytes.data() + position_, n);
    position_ += n;
  }
  void write(const void* buf, std::uint64_t n) override {
    if (position_ + n > bytes.size()) bytes.resize(position_ + n);
    if (n != 0) std::memcpy(bytes.data() + position_, buf, n);
    if (record_) {
      writes.push_back({position_, n});
      snapshots.push_back(bytes);
    }
    position_ += n;
  }
  void flush_file_buffers() override {}
  bf::ThreadingSupport threading_support() const override { return threading_; }

  Bytes bytes;
  std::vector<Write> writes;
  std::vector<Bytes> snapshots;

 private:
  bool record_;
  bf::ThreadingSupport threading_;
  std::uint64_t position_ = 0;
};

}  // namespace Tarn::testing

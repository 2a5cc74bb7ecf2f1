#include "tarnio/bf/stack_imp.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/bf/stack_host.h"
#include "tarnio/errors/tarn_error.h"
#include "tarnio/json/read_write.h"
#include "tarnio/props/compare.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/random_prop.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using Tarn::testing::TempDir;
using State = StackImp::State;
using Bytes = std::vector<std::byte>;

constexpr std::uint64_t kHeaderSize = internal::kStackHeaderSize;
// The fake file starts with a few bytes of its own, so that no stack lies at position 0, which
// ends the chain.
const std::string kFilePrefix = "fake file header";

// A DiskFileAccess over a DiskFile that counts what passes through it and can fail a write.
class CountingAccess final : public DiskFileAccess {
 public:
  explicit CountingAccess(DiskFile& file) : file_(file) {}

  bool is_open_for_reading() const override { return file_.is_open_for_reading(); }
  bool is_open_for_writing() const override { return file_.is_open_for_writing(); }
  std::uint64_t tell() const override { return file_.tell(); }
  std::uint64_t seek(std::uint64_t pos) override {
    ++seeks;
    return file_.seek(pos);
  }
  void read(void* buf, std::uint64_t n) override {
    ++reads;
    read_bytes += n;
    file_.read(buf, n);
  }
  void write(const void* buf, std::uint64_t n) override {
    if (++writes == fail_write) throw TarnError()("Failed writing to file: disk on fire.");
    file_.write(buf, n);
  }
  void flush_file_buffers() override { file_.flush_file_buffers(); }
  ThreadingSupport threading_support() const override { return file_.threading_support(); }

  void reset_counts() { seeks = reads = read_bytes = writes = 0; }

  std::uint64_t seeks = 0;
  std::uint64_t reads = 0;
  std::uint64_t read_bytes = 0;
  std::uint64_t writes = 0;
  std::uint64_t fail_write = 0;  // the number of the write that fails; 0: none

 private:
  DiskFile& file_;
};

// What a file container does for its stacks, over a plain disk file: stacks go to the end of the
// file and each is linked from the previous one's next-stack field.
class FakeHost final : public StackHost {
 public:
  FakeHost(const std::filesystem::path& path, DiskFile::Mode mode) : file(path, mode) {
    if (mode == DiskFile::Mode::write) file.write(kFilePrefix.data(), kFilePrefix.size());
  }

  DiskFileAccess& access() override { return counting; }
  std::uint64_t block_size() const override { return block; }
  std::uint64_t begin_stack(StackImp& stack) override {
    if (writing != nullptr) {
      throw std::runtime_error("Another stack of the file is still being written.");
    }
    writing = &stack;
    return file.seek(DiskFileAccess::kNpos);
  }
  void link_stack(std::uint64_t position) override {
    links.push_back(position);
    if (link_field != 0) {
      const std::uint64_t here = file.tell();
      file.seek(link_field);
      file.write(&position, sizeof position);
      file.seek(here);
    }
    link_field = position + internal::kNextStackOffset;
  }
  void end_stack(StackImp& stack) override {
    ended.push_back(&stack);
    writing = nullptr;
  }
  void count_written(std::uint64_t bytes) override { written += bytes; }
  void mark_sparse() override { file.set_sparse(true); }

  DiskFile file;
  CountingAccess counting{file};
  std::uint64_t block = 0x400000;
  StackImp* writing = nullptr;
  std::vector<std::uint64_t> links;
  std::vector<StackImp*> ended;
  std::uint64_t link_field = 0;
  std::uint64_t written = 0;
};

// A stack whose file can be closed under it, as FileImp does at close.
class TestStack : public StackImp {
 public:
  using StackImp::detach_from_file;
  using StackImp::StackImp;
};

std::shared_ptr<TestStack> new_stack(FakeHost& host, DataType type,
                                     std::vector<std::uint64_t> shape) {
  return std::make_shared<TestStack>(host, type, shape);
}

Bytes random_bytes(std::size_t n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes bytes(n);
  for (std::byte& b : bytes) b = static_cast<std::byte>(rng() & 0xFF);
  return bytes;
}

// Writes `data` (elements of `type`) in pieces of `piece` elements.
void write_in_pieces(StackImp& stack, const Bytes& data, DataType type, std::size_t piece,
                     const Bytes* imag = nullptr) {
  const std::size_t size = tarn_dt_get_size(type);
  for (std::size_t at = 0; at < data.size(); at += piece * size) {
    const std::size_t n = std::min(piece * size, data.size() - at);
    stack.write(data.data() + at, n, type, imag != nullptr ? imag->data() + at : nullptr);
  }
}

Bytes read_all(StackImp& stack, DataType type = Tarn::dt::none) {
  const DataType as = type == Tarn::dt::none ? stack.type() : type;
  Bytes out(stack.number_of_elements() * tarn_dt_get_size(as));
  EXPECT_EQ(stack.read(0, stack.number_of_elements(), out.data(), type), StackImp::kNpos);
  return out;
}

Bytes convert(DataType from, DataType to, const Bytes& src, std::size_t count,
              const Bytes* src_imag = nullptr, Bytes* dst_imag = nullptr) {
  Bytes dst(count * tarn_dt_get_size(to));
  if (dst_imag != nullptr) dst_imag->assign(dst.size(), std::byte{0});
  EXPECT_EQ(tarn_dt_convert(from, to, src.data(), dst.data(), count,
                            src_imag != nullptr ? src_imag->data() : nullptr,
                            dst_imag != nullptr ? dst_imag->data() : nullptr),
            0);
  return dst;
}

Bytes file_bytes(DiskFile& file, std::uint64_t position, std::uint64_t n) {
  Bytes out(n);
  const std::uint64_t here = file.tell();
  file.seek(position);
  file.read(out.data(), n);
  file.seek(here);
  return out;
}

std::uint64_t u64_at(DiskFile& file, std::uint64_t position) {
  return internal::get_u64(file_bytes(file, position, 8), 0);
}

std::vector<DataType> types_with_size() {
  std::vector<DataType> types;
  for (DataType type : arrays::all_data_types()) {
    if (tarn_dt_get_size(type) != 0) types.push_back(type);
  }
  return types;
}

TEST(StackRoundTrip, EveryTypeWithASizeInPiecesOfWholeSamples) {
  TempDir dir;
  const auto path = dir / "all.tbf";
  const std::vector<DataType> types = types_with_size();
  ASSERT_EQ(types.size(), 15u);
  std::vector<Bytes> written;
  std::vector<std::uint64_t> positions;
  {
    FakeHost host(path, DiskFile::Mode::write);
    for (std::size_t i = 0; i < types.size(); ++i) {
      SCOPED_TRACE(tarn_dt_get_name(types[i]));
      auto stack = new_stack(host, types[i], {5, 3, 2});
      stack->set_name("stack " + std::to_string(i));
      stack->set_description(std::string(i, 'd'));
      stack->set_lengths({10.0, 3.0, 0.5});
      stack->set_offsets({-1.0, 0.0, 2.5});
      written.push_back(random_bytes(30 * tarn_dt_get_size(types[i]), static_cast<unsigned>(i)));
      stack->write(written[i].data(), 0);
      write_in_pieces(*stack, written[i], types[i], 7);
      stack->commit();
      EXPECT_EQ(stack->state(), State::committed);
      EXPECT_EQ(host.ended.back(), stack.get());
      positions.push_back(stack->position());

      // Layout: the element data directly behind name and description, the stack record last,
      // the file position behind it.
      const std::uint64_t data_position = stack->position() + kHeaderSize + 7 + (i > 9) + i;
      EXPECT_EQ(stack->data_position(), data_position);
      EXPECT_EQ(stack->data_length(), written[i].size());
      EXPECT_EQ(file_bytes(host.file, data_position, written[i].size()), written[i]);
      EXPECT_EQ(u64_at(host.file, stack->position() + 344), 1u);
      EXPECT_EQ(u64_at(host.file, stack->position() + 352), written[i].size());
      EXPECT_EQ(host.file.tell(), host.file.size());
      // Every byte the stacks wrote, the patched data length fields included.
      EXPECT_EQ(host.written, host.file.size() - kFilePrefix.size() + 8 * (i + 1));
    }
    EXPECT_EQ(host.links, positions);
  }

  FakeHost host(path, DiskFile::Mode::read);
  std::uint64_t position = positions.front();
  for (std::size_t i = 0; i < types.size(); ++i) {
    SCOPED_TRACE(tarn_dt_get_name(types[i]));
    ASSERT_EQ(position, positions[i]);
    const auto stack = StackImp::read_from(host, position);
    EXPECT_EQ(stack->state(), State::committed);
    EXPECT_TRUE(stack->is_locked());
    EXPECT_EQ(stack->type(), types[i]);
    EXPECT_EQ(stack->shape(), (std::vector<std::uint64_t>{5, 3, 2}));
    EXPECT_EQ(stack->name(), "stack " + std::to_string(i));
    EXPECT_EQ(stack->description(), std::string(i, 'd'));
    EXPECT_EQ(stack->lengths(), (std::vector<double>{10.0, 3.0, 0.5}));
    EXPECT_EQ(stack->offsets(), (std::vector<double>{-1.0, 0.0, 2.5}));
    EXPECT_EQ(stack->format_version(), 7u);
    EXPECT_EQ(stack->minimum_reader_version(), 7u);
    EXPECT_EQ(stack->compression(), StackImp::Compression::none);
    EXPECT_TRUE(stack->has_data());
    EXPECT_EQ(read_all(*stack), written[i]);
    position = stack->next_position();
  }
  EXPECT_EQ(position, 0u);
}

TEST(StackConversion, BothDirectionsMatchTheConverters) {
  namespace dt = Tarn::dt;
  const std::pair<DataType, DataType> pairs[] = {
      {dt::double_, dt::uint8},     {dt::int32, dt::single},
      {dt::uint8, dt::cplx_double}, {dt::single, dt::int64},
      {dt::uint16, dt::double_},    {dt::rgb, dt::rgb32},
      {dt::int64, dt::int8},        {dt::cplx_double, dt::cplx_single},
  };
  constexpr std::size_t kCount = 37;
  for (const auto& [buffer_type, stack_type] : pairs) {
    SCOPED_TRACE(std::string(tarn_dt_get_name(buffer_type)) + " / " + tarn_dt_get_name(stack_type));
    TempDir dir;
    FakeHost host(dir / "convert.tbf", DiskFile::Mode::write);
    // A bounce buffer of a few elements: every transfer takes several pieces and a short one.
    host.block = 40;
    const Bytes source = random_bytes(kCount * tarn_dt_get_size(buffer_type), 7);
    auto stack = new_stack(host, stack_type, {kCount});
    write_in_pieces(*stack, source, buffer_type, 10);
    stack->commit();

    const Bytes stored = convert(buffer_type, stack_type, source, kCount);
    EXPECT_EQ(read_all(*stack), stored);
    if (tarn_dt_convert(stack_type, buffer_type, nullptr, nullptr, 0, nullptr, nullptr) == 0) {
      EXPECT_EQ(read_all(*stack, buffer_type), convert(stack_type, buffer_type, stored, kCount));
      // From the middle, across piece boundaries.
      Bytes middle(20 * tarn_dt_get_size(buffer_type));
      EXPECT_EQ(stack->read(9, 20, middle.data(), buffer_type), 29u);
      const Bytes expected = convert(stack_type, buffer_type, stored, kCount);
      EXPECT_TRUE(
          std::equal(middle.begin(), middle.end(),
                     expected.begin() + 9 * static_cast<long>(tarn_dt_get_size(buffer_type))));
    } else {
      Bytes out(kCount * tarn_dt_get_size(buffer_type));
      EXPECT_THROW_MESSAGE(stack->read(0, kCount, out.data(), buffer_type), std::runtime_error,
                           std::string("Invalid on-the-fly conversion from '") +
                               tarn_dt_get_name(stack_type) + "' to '" +
                               tarn_dt_get_name(buffer_type) + "'.");
    }
  }
}

TEST(StackConversion, ComplexStacksTakeAndGiveSeparateImaginaryBlocks) {
  namespace dt = Tarn::dt;
  constexpr std::size_t kCount = 30;
  TempDir dir;
  FakeHost host(dir / "complex.tbf", DiskFile::Mode::write);
  host.block = 64;
  std::vector<double> re(kCount), im(kCount);
  for (std::size_t i = 0; i < kCount; ++i) {
    re[i] = 1.5 * static_cast<double>(i) - 7.25;
    im[i] = -0.5 * static_cast<double>(i * i);
  }
  Bytes re_bytes(kCount * 8), im_bytes(kCount * 8);
  std::memcpy(re_bytes.data(), re.data(), re_bytes.size());
  std::memcpy(im_bytes.data(), im.data(), im_bytes.size());

  auto stack = new_stack(host, dt::cplx_single, {6, 5});
  write_in_pieces(*stack, re_bytes, dt::double_, 11, &im_bytes);
  stack->commit();

  const Bytes stored = convert(dt::double_, dt::cplx_single, re_bytes, kCount, &im_bytes);
  EXPECT_EQ(read_all(*stack), stored);
  EXPECT_EQ(read_all(*stack, dt::cplx_double),
            convert(dt::cplx_single, dt::cplx_double, stored, kCount));
  for (const DataType part : {dt::single, dt::int16, dt::double_}) {
    SCOPED_TRACE(tarn_dt_get_name(part));
    Bytes expected_im;
    const Bytes expected_re = convert(dt::cplx_single, part, stored, kCount, nullptr, &expected_im);
    Bytes got_re(expected_re.size()), got_im(expected_im.size());
    EXPECT_EQ(stack->read(0, kCount, got_re.data(), part, got_im.data()), StackImp::kNpos);
    EXPECT_EQ(got_re, expected_re);
    EXPECT_EQ(got_im, expected_im);
  }
  // The values survive exactly where single precision holds them.
  std::vector<std::complex<float>> values(kCount);
  stack->read(0, std::span<std::complex<float>>(values));
  EXPECT_EQ(values[3], std::complex<float>(-2.75f, -4.5f));
}

TEST(StackWithoutData, StoresHeaderAndRecordOnly) {
  TempDir dir;
  const auto path = dir / "nodata.tbf";
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  {
    FakeHost host(path, DiskFile::Mode::write);
    auto described = new_stack(host, Tarn::dt::uint16, {4, 4});
    described->set_no_data(true);
    described->set_name("overview");
    described->set_tag("note", JSON::Value("only a description"));
    EXPECT_FALSE(described->has_data());
    described->commit();
    first = described->position();
    EXPECT_EQ(described->data_position(), first + kHeaderSize + 8);
    EXPECT_EQ(described->data_length(), 0u);
    EXPECT_EQ(u64_at(host.file, first + 344), 0u);
    EXPECT_EQ(u64_at(host.file, first + 352), 0u);

    auto empty = new_stack(host, Tarn::dt::single, {0, 3});
    EXPECT_FALSE(empty->has_data());
    empty->commit();
    second = empty->position();
    EXPECT_EQ(u64_at(host.file, second + 344), 1u);
    EXPECT_EQ(host.ended.size(), 2u);
  }
  FakeHost host(path, DiskFile::Mode::read);
  const auto described = StackImp::read_from(host, first);
  EXPECT_FALSE(described->has_data());
  EXPECT_EQ(described->shape(), (std::vector<std::uint64_t>{4, 4}));
  EXPECT_EQ(described->name(), "overview");
  EXPECT_EQ(std::get<JSON::Value>(described->tag("note")), JSON::Value("only a description"));
  EXPECT_EQ(described->next_position(), second);
  std::uint16_t sample = 0;
  EXPECT_THROW_MESSAGE(described->read(0, 1, &sample), std::runtime_error,
                       "Stack has no data. Cannot read.");
  const auto empty = StackImp::read_from(host, second);
  EXPECT_FALSE(empty->has_data());
  EXPECT_EQ(empty->type(), Tarn::dt::single);
  EXPECT_EQ(empty->shape(), (std::vector<std::uint64_t>{0, 3}));
}

enum class Error { runtime, invalid_argument, tarn };

void expect_error(const std::function<void()>& action, Error kind, const std::string& message) {
  try {
    action();
  } catch (const TarnError& error) {
    EXPECT_EQ(kind, Error::tarn) << error.message();
    EXPECT_EQ(error.message(), message);
    return;
  } catch (const std::invalid_argument& error) {
    EXPECT_EQ(kind, Error::invalid_argument) << error.what();
    EXPECT_EQ(std::string(error.what()), message);
    return;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(kind, Error::runtime) << error.what();
    EXPECT_EQ(std::string(error.what()), message);
    return;
  }
  ADD_FAILURE() << "did not throw: " << message;
}

TEST(StackLifecycle, EveryMisuseGetsItsSentenceAndLeavesTheStackAsItSays) {
  namespace dt = Tarn::dt;
  using Act = std::function<void(TestStack&, FakeHost&)>;
  const Bytes twelve(24);  // the samples of a uint16 stack of shape {4, 3}
  const Act nothing = [](TestStack&, FakeHost&) {};
  const Act write_half = [&](TestStack& s, FakeHost&) { s.write(twelve.data(), 12); };
  const Act write_all = [&](TestStack& s, FakeHost&) { s.write(twelve.data(), 24); };
  const Act commit_all = [&](TestStack& s, FakeHost& h) {
    write_all(s, h);
    s.commit();
  };
  const Act commit_complex = [](TestStack& s, FakeHost&) {
    const std::vector<std::complex<double>> values(2);
    s.write(std::span<const std::complex<double>>(values));
    s.commit();
  };
  const Act cancel = [&](TestStack& s, FakeHost&) {
    s.set_progress_callback([](std::uint64_t, std::uint64_t) { return false; });
    EXPECT_THROW(s.write(twelve.data(), 2), std::runtime_error);
  };
  const auto read = [&](std::uint64_t first, std::uint64_t count, DataType type, bool imag) {
    return [=](TestStack& s, FakeHost&) {
      std::vector<std::byte> out(512), out_imag(512);
      s.read(first, count, out.data(), type, imag ? out_imag.data() : nullptr);
    };
  };
  const auto write_as = [&](DataType type, bool imag, std::uint64_t bytes = 16) {
    return [=](TestStack& s, FakeHost&) {
      std::vector<std::byte> data(512), data_imag(512);
      s.write(data.data(), bytes, type, imag ? data_imag.data() : nullptr);
    };
  };

  using Shape = std::vector<std::uint64_t>;
  struct Case {
    const char* what;
    Act before;
    Act action;
    const char* message;
    State after;
    Error kind = Error::runtime;
    DataType type = dt::uint16;
    Shape shape = {4, 3};
  };
  const Act commit = [](TestStack& s, FakeHost&) { s.commit(); };
  const Act no_data = [](TestStack& s, FakeHost&) { s.set_no_data(true); };
  const Act close = [](TestStack& s, FakeHost&) { s.detach_from_file(); };
  const auto then = [](Act first, Act second) {
    return [=](TestStack& s, FakeHost& h) {
      first(s, h);
      second(s, h);
    };
  };
  const Act move_file_position = [](TestStack&, FakeHost& h) { h.file.seek(3); };
  const std::vector<Case> cases = {
      {"write to a stack without data", no_data, write_half, "Trying to write to empty stack.",
       State::describing},
      {"write to a stack of 0 elements", nothing, write_half, "Trying to write to empty stack.",
       State::describing, Error::runtime, dt::uint16, Shape{4, 0}},
      {"write after the last sample", write_all, write_half,
       "Stack is already complete. Invalid call to write().", State::writing},
      {"write after commit", commit_all, write_half,
       "Stack is already complete. Invalid call to write().", State::committed},
      {"write inside an element", nothing, write_as(dt::none, false, 3), "Not on sample boundary.",
       State::describing},
      {"write inside a converted element", write_half, write_as(dt::double_, false, 12),
       "Not on sample boundary.", State::writing},
      {"write beyond the end", write_half, write_as(dt::none, false, 14),
       "Trying to write more samples than the stack is long.", State::writing},
      {"imaginary block for a real stack", nothing, write_as(dt::double_, true),
       "Imaginary block given but stack is not complex.", State::describing},
      {"imaginary block for complex data", nothing, write_as(dt::cplx_single, true),
       "Imaginary block given but buffer is already complex.", State::describing, Error::runtime,
       dt::cplx_single},
      {"conversion from logical", nothing, write_as(dt::logical, false),
       "Invalid on-the-fly conversion from 'uint16' to 'logical'.", State::describing},
      {"conversion from complex to real", nothing, write_as(dt::cplx_double, false),
       "Invalid on-the-fly conversion from 'double' to 'cplx_double'.", State::describing,
       Error::runtime, dt::double_},
      {"merge of RGB parts", nothing, write_as(dt::rgb, true, 12),
       "Invalid on-the-fly conversion from 'cplx_single' to 'none'.", State::describing,
       Error::runtime, dt::cplx_single},
      {"write without a type", nothing, write_as(dt::uint16, false),
       "Stack data type not set. Cannot write data to the stack.", State::describing,
       Error::runtime, dt::none},
      {"rank above 15", nothing, write_as(dt::uint8, false, 1),
       "A stack has at most 15 dimensions, not 16.", State::describing, Error::invalid_argument,
       dt::uint8, Shape(16, 1)},
      {"dimension of 2^32", nothing, write_as(dt::uint8, false, 1),
       "Dimension size 4294967296 is too large: a stack stores sizes below 2^32.",
       State::describing, Error::invalid_argument, dt::uint8, Shape{std::uint64_t{1} << 32}},
      {"write after a cancel", cancel, write_half,
       "Stack failed or was cancelled. Invalid call to write().", State::failed},
      {"write after the file position moved", then(write_half, move_file_position), write_half,
       "File pointer at invalid position encountered.", State::writing},
      {"commit after the file position moved", then(write_all, move_file_position), commit,
       "File pointer at invalid position encountered.", State::writing},

      {"commit before all samples", write_half, commit, "Not enough samples written.",
       State::writing},
      {"commit before any write", nothing, commit, "Not enough samples written.",
       State::describing},
      {"commit after a cancel", cancel, commit,
       "Stack not ready to be committed. Meta-information missing.", State::failed},
      {"commit without a type", no_data, commit,
       "Stack data type not set. Cannot commit stack to file.", State::describing, Error::runtime,
       dt::none},
      {"commit with a type without size", nothing, commit,
       "Stack data type not set. Cannot commit stack to file.", State::describing, Error::runtime,
       dt::cell, Shape{0}},
      {"commit twice", commit_all, commit, "Stack is already complete. Invalid call to commit().",
       State::committed},

      {"read before commit", write_all, read(0, 1, dt::none, false),
       "Stack not committed to disk. Cannot read.", State::writing},
      {"read at the position none", commit_all, read(StackImp::kNpos, 1, dt::none, false),
       "Invalid position (-1) passed. Possible reason: Last read call exhausted data.",
       State::committed},
      {"read beyond the end", commit_all, read(10, 3, dt::none, false),
       "Requested samples lie beyond the end of the stack.", State::committed,
       Error::invalid_argument},
      {"read with a count that wraps", commit_all, read(2, StackImp::kNpos - 1, dt::none, false),
       "Requested samples lie beyond the end of the stack.", State::committed,
       Error::invalid_argument},
      {"imaginary buffer for a real stack", commit_all, read(0, 1, dt::double_, true),
       "Imaginary buffer passed but stack is not complex.", State::committed},
      {"imaginary buffer for complex data", commit_complex, read(0, 1, dt::cplx_double, true),
       "Imaginary buffer passed but buffer type is already complex.", State::committed,
       Error::runtime, dt::cplx_double, Shape{2}},
      {"complex into real", commit_complex, read(0, 1, dt::double_, false),
       "Invalid on-the-fly conversion from 'cplx_double' to 'double'.", State::committed,
       Error::runtime, dt::cplx_double, Shape{2}},
      {"complex split into logical", commit_complex, read(0, 1, dt::logical, true),
       "Invalid on-the-fly conversion from 'cplx_double' to 'cplx_logical'.", State::committed,
       Error::runtime, dt::cplx_double, Shape{2}},

      {"type set twice", nothing, [](TestStack& s, FakeHost&) { s.set_type(dt::uint8); },
       "The type is already set to '4'.", State::describing},
      {"compression type 2", nothing,
       [](TestStack& s, FakeHost&) { s.set_compression(StackImp::Compression{2}); },
       "Invalid compression type specified.", State::describing},
      {"compression after writing began", write_half,
       [](TestStack& s, FakeHost&) { s.set_compression(StackImp::Compression::none); },
       "Cannot change compression mode.", State::writing},
      {"no-data flag after writing began", write_half,
       [](TestStack& s, FakeHost&) { s.set_no_data(false); },
       "Invalid attempt to change write flags.", State::writing},
      {"info after writing began", write_half, [](TestStack& s, FakeHost&) { s.set_name("late"); },
       "Cannot set values: Object locked.", State::writing},

      {"write after close", close, write_half, "Cannot access File_Stack, file has been closed.",
       State::describing},
      {"commit after close", then(write_all, close), commit,
       "Cannot access File_Stack, file has been closed.", State::writing},
      {"read after close", then(commit_all, close), read(0, 1, dt::none, false),
       "Cannot access File_Stack, file has been closed.", State::committed},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    FakeHost host(dir / "lifecycle.tbf", DiskFile::Mode::write);
    auto stack = new_stack(host, c.type, c.shape);
    c.before(*stack, host);
    const std::uint64_t file_size = host.file.size();
    expect_error([&] { c.action(*stack, host); }, c.kind, c.message);
    EXPECT_EQ(stack->state(), c.after);
    // A refused call moves no byte.
    EXPECT_EQ(host.file.size(), file_size);
  }
}

TEST(StackProgress, CalledPerPieceWithTheStacksBytes) {
  TempDir dir;
  FakeHost host(dir / "progress.tbf", DiskFile::Mode::write);
  host.block = 8;
  auto stack = new_stack(host, Tarn::dt::uint32, {12});
  std::vector<std::pair<std::uint64_t, std::uint64_t>> calls;
  stack->set_progress_callback([&](std::uint64_t done, std::uint64_t total) {
    calls.emplace_back(done, total);
    return true;
  });
  const std::vector<std::uint32_t> direct(6, 7);
  stack->write(std::span<const std::uint32_t>(direct));
  // Converted through a bounce buffer of two elements: one call per piece.
  const std::vector<std::uint8_t> converted(6, 9);
  stack->write(std::span<const std::uint8_t>(converted));
  stack->commit();
  const std::vector<std::pair<std::uint64_t, std::uint64_t>> expected = {
      {24, 48}, {32, 48}, {40, 48}, {48, 48}};
  EXPECT_EQ(calls, expected);

  calls.clear();
  std::vector<double> out(12);
  stack->read(0, std::span<double>(out));
  EXPECT_EQ(calls.size(), 6u);
  EXPECT_EQ(calls.back(), (std::pair<std::uint64_t, std::uint64_t>{48, 48}));
  EXPECT_EQ(out[0], 7.0);
  EXPECT_EQ(out[11], 9.0);
}

TEST(StackProgress, CancelFailsTheWriteAndOnlyStopsTheRead) {
  TempDir dir;
  FakeHost host(dir / "cancel.tbf", DiskFile::Mode::write);
  host.block = 16;
  auto stack = new_stack(host, Tarn::dt::int16, {40});
  std::uint64_t allowed = 2;
  stack->set_progress_callback([&](std::uint64_t, std::uint64_t) { return allowed-- > 0; });
  const std::vector<std::int32_t> data(40, -3);
  EXPECT_THROW_MESSAGE(stack->write(std::span<const std::int32_t>(data)), std::runtime_error,
                       "Cancelled by user.");
  EXPECT_EQ(stack->state(), State::failed);
  ASSERT_EQ(host.ended.size(), 1u);
  EXPECT_EQ(host.ended[0], stack.get());
  // The stack on disk never became complete.
  EXPECT_EQ(u64_at(host.file, stack->position() + 352), 0u);

  auto next = new_stack(host, Tarn::dt::int16, {40});
  next->write(std::span<const std::int32_t>(data));
  next->commit();
  std::uint64_t reads_allowed = 1;
  next->set_progress_callback([&](std::uint64_t, std::uint64_t) { return reads_allowed-- > 0; });
  std::vector<std::int32_t> out(40);
  EXPECT_THROW_MESSAGE(next->read(0, std::span<std::int32_t>(out)), std::runtime_error,
                       "Cancelled by user.");
  EXPECT_EQ(next->state(), State::committed);
  next->set_progress_callback({});
  EXPECT_EQ(next->read(0, std::span<std::int32_t>(out)), StackImp::kNpos);
  EXPECT_EQ(out, data);
}

TEST(StackWriting, DiskErrorFailsTheStack) {
  for (const std::uint64_t failing : {1u, 2u, 3u, 4u}) {
    SCOPED_TRACE(failing);  // header, data, record, data length patch
    TempDir dir;
    FakeHost host(dir / "failing.tbf", DiskFile::Mode::write);
    auto stack = new_stack(host, Tarn::dt::uint8, {8});
    host.counting.fail_write = failing;
    const std::vector<std::uint8_t> data(8, 1);
    EXPECT_THROW_MESSAGE(
        {
          stack->write(std::span<const std::uint8_t>(data));
          stack->commit();
        },
        TarnError, "Failed writing to file: disk on fire.");
    EXPECT_EQ(stack->state(), State::failed);
    EXPECT_EQ(host.ended.size(), 1u);
    EXPECT_EQ(host.writing, nullptr);
  }
}

TEST(StackReading, RangeInTheMiddleCostsOneSeekAndItsBytes) {
  TempDir dir;
  FakeHost host(dir / "planes.tbf", DiskFile::Mode::write);
  const std::vector<std::uint64_t> shape = {8, 6, 5};
  constexpr std::uint64_t kPlane = 48;
  std::vector<std::uint16_t> data(kPlane * 5);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint16_t>(i * 3 + 1);
  auto stack = new_stack(host, Tarn::dt::uint16, shape);
  stack->write(std::span<const std::uint16_t>(data));
  stack->commit();

  std::vector<std::uint16_t> plane(kPlane);
  host.counting.reset_counts();
  EXPECT_EQ(stack->read(2 * kPlane, std::span<std::uint16_t>(plane)), 3 * kPlane);
  EXPECT_EQ(host.counting.seeks, 1u);
  EXPECT_EQ(host.counting.reads, 1u);
  EXPECT_EQ(host.counting.read_bytes, kPlane * 2);
  EXPECT_TRUE(std::equal(plane.begin(), plane.end(), data.begin() + 2 * kPlane));

  // Converted, still one move and the plane's bytes.
  std::vector<float> as_float(kPlane);
  host.counting.reset_counts();
  EXPECT_EQ(stack->read(4 * kPlane, std::span<float>(as_float)), StackImp::kNpos);
  EXPECT_EQ(host.counting.seeks, 1u);
  EXPECT_EQ(host.counting.read_bytes, kPlane * 2);
  EXPECT_EQ(as_float[5], static_cast<float>(data[4 * kPlane + 5]));

  // The same through a stack read back from the file; an empty read at the end is the end.
  const auto reread = StackImp::read_from(host, stack->position());
  EXPECT_EQ(reread->read(kPlane, std::span<std::uint16_t>(plane)), 2 * kPlane);
  EXPECT_TRUE(std::equal(plane.begin(), plane.end(), data.begin() + kPlane));
  EXPECT_EQ(reread->read(5 * kPlane, 0, nullptr), StackImp::kNpos);
  EXPECT_EQ(reread->read(7, 0, nullptr), 7u);
}

// The stack record of a single stack written by `write`: its position in the file.
std::uint64_t record_position(const StackImp& stack) {
  return stack.data_position() + stack.data_length();
}

TEST(StackInfo, RoundTripsThroughTheRecord) {
  namespace units = Tarn::units;
  TempDir dir;
  const auto path = dir / "info.tbf";
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const TProp random_tag = Tarn::testing::RandomProp(3)();
  arrays::StackPosition where;
  where.time_point = 3;
  where.channel = 1;
  where.stage_um = {1.5, nan, -2.0};
  const arrays::Timestamp when{arrays::Timestamp::duration(133'456'789'012'345'678)};
  const JSON::Value kalix = JSON::read(R"({"files": [{"name": "a.loc", "size": 12}], "v": 2})");
  std::uint64_t position = 0;
  {
    FakeHost host(path, DiskFile::Mode::write);
    auto stack = new_stack(host, Tarn::dt::single, {4, 3, 2});
    stack->set_name("cells");
    stack->set_description("a z-stack\nof two planes");
    stack->set_lengths({13.3, 6.0, 0.8});
    stack->set_offsets({0.0, -3.0, 0.2});
    stack->set_labels({"x", "y", "z"});
    stack->set_units(0, units::RuntimeValue(0.1, "um"));
    stack->set_units(2, units::RuntimeValue(400, "nm"));
    stack->set_data_units(units::RuntimeValue(2.5, "s"));
    stack->set_xy_col_positions(0, {{0, 1}, {2, nan}, {4, 5}, {6, -7}});
    stack->set_col_positions(1, {0.0, 1.5, 4.0});
    stack->set_col_labels(2, {"before", "after"});
    stack->set_stack_position(where);
    stack->set_timestamp(when);
    stack->set_tag("scalar", TProp(2.5));
    stack->set_tag("tree", random_tag);
    const std::vector<float> data(24, 1.0f);
    stack->write(std::span<const float>(data));
    // Tags stay settable while the stack is written; they go to the record at commit.
    stack->set_tag("kalix", kalix);
    stack->commit();
    position = stack->position();
  }
  FakeHost host(path, DiskFile::Mode::read);
  const auto stack = StackImp::read_from(host, position);
  EXPECT_EQ(stack->name(), "cells");
  EXPECT_EQ(stack->description(), "a z-stack\nof two planes");
  EXPECT_EQ(stack->lengths(), (std::vector<double>{13.3, 6.0, 0.8}));
  EXPECT_EQ(stack->offsets(), (std::vector<double>{0.0, -3.0, 0.2}));
  EXPECT_EQ(stack->labels(), (std::vector<std::string>{"x", "y", "z"}));
  EXPECT_EQ(stack->units(0).to_string(), units::RuntimeValue(0.1, "um").to_string());
  EXPECT_EQ(stack->units(1).to_string(), units::RuntimeValue().to_string());
  EXPECT_EQ(stack->units(2).to_string(), "400 nm");
  EXPECT_EQ(stack->data_units().to_string(), units::RuntimeValue(2.5, "s").to_string());
  const auto& xy = stack->xy_col_positions(0);
  ASSERT_EQ(xy.size(), 4u);
  EXPECT_EQ(xy[0], (std::pair<double, double>{0, 1}));
  EXPECT_EQ(xy[1].first, 2);
  EXPECT_TRUE(std::isnan(xy[1].second));
  EXPECT_EQ(xy[3], (std::pair<double, double>{6, -7}));
  EXPECT_TRUE(stack->is_equidistant(0));
  EXPECT_FALSE(stack->is_equidistant(1));
  EXPECT_EQ(stack->col_positions(1), (std::vector<double>{0.0, 1.5, 4.0}));
  EXPECT_EQ(stack->col_labels(2), (std::vector<std::string>{"before", "after"}));
  EXPECT_TRUE(stack->col_labels(0).empty());
  EXPECT_EQ(stack->stack_position(), where);
  EXPECT_EQ(stack->timestamp(), when);
  EXPECT_EQ(stack->tags(), (std::vector<std::string>{"kalix", "scalar", "tree"}));
  EXPECT_EQ(std::get<JSON::Value>(stack->tag("kalix")), kalix);
  EXPECT_TRUE(std::get<TProp>(stack->tag("scalar")) == TProp(2.5));
  EXPECT_TRUE(Tarn::props::is_equal(std::get<TProp>(stack->tag("tree")), random_tag,
                                    Tarn::props::CompareTraits{.compare_ids = true}));
  EXPECT_THROW_MESSAGE(stack->set_label(0, "u"), std::runtime_error,
                       "Cannot set values: Object locked.");
}

TEST(StackReading, StackWithoutRecordKeepsTheDefaults) {
  TempDir dir;
  const auto path = dir / "bare.tbf";
  std::uint64_t position = 0;
  std::uint64_t record = 0;
  {
    FakeHost host(path, DiskFile::Mode::write);
    auto stack = new_stack(host, Tarn::dt::int8, {2, 2});
    stack->set_labels({"a", "b"});
    const std::vector<std::int8_t> data = {1, -1, 2, -2};
    stack->write(std::span<const std::int8_t>(data));
    stack->commit();
    position = stack->position();
    record = record_position(*stack);
  }
  // What a simpler writer leaves: the data, then something else (here the end of the file).
  std::filesystem::resize_file(path, record);
  FakeHost host(path, DiskFile::Mode::read);
  const auto stack = StackImp::read_from(host, position);
  EXPECT_EQ(stack->minimum_reader_version(), internal::kNoMinimumReaderVersion);
  EXPECT_EQ(stack->labels(), (std::vector<std::string>{"", ""}));
  std::vector<std::int8_t> out(4);
  stack->read(0, std::span<std::int8_t>(out));
  EXPECT_EQ(out, (std::vector<std::int8_t>{1, -1, 2, -2}));
}

// Writes and reads back a stack of 5 GiB: positions and lengths beyond 32 bits. Slow.
TEST(StackLarge, DISABLED_StackBeyondFourGiB) {
  TempDir dir;
  FakeHost host(dir / "large.tbf", DiskFile::Mode::write);
  constexpr std::uint64_t kPiece = std::uint64_t{64} << 20;
  constexpr std::uint64_t kPieces = 80;
  auto stack = new_stack(host, Tarn::dt::uint8, {kPiece, kPieces});
  std::vector<std::uint8_t> piece(kPiece);
  for (std::uint64_t i = 0; i < kPieces; ++i) {
    std::fill(piece.begin(), piece.end(), static_cast<std::uint8_t>(i * 7 + 1));
    piece.back() = static_cast<std::uint8_t>(i);
    stack->write(std::span<const std::uint8_t>(piece));
  }
  stack->commit();
  EXPECT_EQ(stack->data_length(), kPiece * kPieces);
  const auto reread = StackImp::read_from(host, stack->position());
  std::vector<std::uint8_t> out(4);
  // Across the 4 GiB boundary: the last bytes of piece 63 and the first of piece 64.
  EXPECT_EQ(reread->read(64 * kPiece - 2, std::span<std::uint8_t>(out)), 64 * kPiece + 2);
  EXPECT_EQ(out, (std::vector<std::uint8_t>{static_cast<std::uint8_t>(63 * 7 + 1), 63,
                                            static_cast<std::uint8_t>(64 * 7 + 1),
                                            static_cast<std::uint8_t>(64 * 7 + 1)}));
}

}  // namespace
}  // namespace Tarn::bf

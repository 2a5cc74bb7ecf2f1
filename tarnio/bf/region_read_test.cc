#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnio/arrays/region.h"
#include "tarnio/arrays/shape.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/internal/region_reader.h"
#include "tarnio/bf/internal/zlib_segment.h"
#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

using arrays::Region;
using Bytes = std::vector<std::byte>;

// The stack index of element `o` of `region`, found on its own, without runs or batches.
std::uint64_t stack_index(std::span<const std::uint64_t> shape, const Region& region,
                          std::uint64_t o) {
  std::uint64_t at = 0;
  std::uint64_t stride = 1;
  for (std::size_t i = 0; i < shape.size(); stride *= shape[i++]) {
    at += (region.start()[i] + o % region.size()[i] * region.step()[i]) * stride;
    o /= region.size()[i];
  }
  return at;
}

Bytes naive_slice(const Bytes& raw, std::span<const std::uint64_t> shape, const Region& region,
                  std::size_t element_size) {
  Bytes out;
  for (std::uint64_t o = 0; o < region.number_of_elements(); ++o) {
    const auto* element = raw.data() + stack_index(shape, region, o) * element_size;
    out.insert(out.end(), element, element + element_size);
  }
  return out;
}

// Whole axes, single indices, strided and plain ranges, and now and then an empty axis.
Region random_region(std::span<const std::uint64_t> shape, std::mt19937& rng) {
  std::vector<std::uint64_t> start, size, step;
  const auto pick = [&](std::uint64_t limit) {
    return std::uniform_int_distribution<std::uint64_t>(0, limit)(rng);
  };
  for (const std::uint64_t n : shape) {
    const std::uint64_t kind = pick(4);
    step.push_back(kind == 3 ? 1 + pick(2) : 1);
    start.push_back(kind <= 1 ? 0 : pick(n - 1));
    const std::uint64_t most = (n - 1 - start.back()) / step.back() + 1;
    size.push_back(kind <= 1 ? n : kind == 2 ? 1 : pick(most));
  }
  return Region(start, size, step);
}

enum class Storage { plain, zlib, chunked, chunked_zlib };

std::shared_ptr<StackImp> add_stack(FileInterface& file, DataType type,
                                    std::span<const std::uint64_t> shape, Storage storage) {
  auto stack = file.add_stack(type, shape);
  if (storage == Storage::zlib || storage == Storage::chunked_zlib) {
    stack->set_compression(StackImp::Compression::zlib, 1);
    // Blocks that end inside elements and lines.
    stack->set_flush_block_size(301);
  }
  if (storage == Storage::chunked || storage == Storage::chunked_zlib) {
    stack->set_chunk_wise(true, shape[0] * shape[1] * 2);
  }
  return stack;
}

TEST(RegionReadTest, RandomRegionsMatchTheRawSlicesForEveryTypeAndStorage) {
  const std::vector<std::uint64_t> shape{11, 7, 6};
  const std::uint64_t count = arrays::number_of_elements(shape);
  testing::TempDir dir;
  std::mt19937 rng(14);
  for (const DataType type : arrays::all_data_types()) {
    const std::size_t element_size = tarn_dt_get_size(type);
    if (element_size == 0) continue;
    for (const Storage storage :
         {Storage::plain, Storage::zlib, Storage::chunked, Storage::chunked_zlib}) {
      SCOPED_TRACE(std::string(tarn_dt_get_name(type)) + " storage " +
                   std::to_string(static_cast<int>(storage)));
      Bytes raw(count * element_size);
      for (std::byte& b : raw) b = static_cast<std::byte>(rng() % 7);
      const auto path = dir / "r.tbf";
      {
        auto file = create_file(false);
        file->open(path, DiskFile::Mode::write);
        auto stack = add_stack(*file, type, shape, storage);
        stack->write(raw.data(), raw.size());
        stack->commit();
        file->close();
      }
      auto file = open_file(path, DiskFile::Mode::read);
      file->set_threading_support({2, {}});
      StackImp& stack = *file->stack(0);
      // Reads into the stored type and, where the converters go there, into doubles (split
      // into real and imaginary parts for complex types).
      const DataType real = type & ~Tarn::dt::complex_flag;
      const bool complex = real != type;
      double probe = 0;
      const bool converts = tarn_dt_convert(type, Tarn::dt::double_, nullptr, nullptr, 0, nullptr,
                                            complex ? &probe : nullptr) == 0;
      for (int round = 0; round < 12; ++round) {
        const Region region = round == 0 ? Region::whole(shape) : random_region(shape, rng);
        const std::uint64_t n = region.number_of_elements();
        const Bytes expected = naive_slice(raw, shape, region, element_size);
        Bytes got(n * element_size);
        stack.read_region(region, got.data());
        ASSERT_EQ(got, expected) << "round " << round;
        if (!converts || n == 0) continue;
        std::vector<double> want(n), want_imag(n), real_part(n), imag_part(n);
        tarn_dt_convert(type, Tarn::dt::double_, expected.data(), want.data(), n, nullptr,
                        complex ? want_imag.data() : nullptr);
        stack.read_region(region, real_part.data(), Tarn::dt::double_,
                          complex ? imag_part.data() : nullptr);
        ASSERT_EQ(0, std::memcmp(want.data(), real_part.data(), n * sizeof(double)));
        ASSERT_EQ(0, std::memcmp(want_imag.data(), imag_part.data(), n * sizeof(double)));
      }
    }
  }
}

// The flush blocks holding any element of the region.
std::set<std::uint64_t> touched_blocks(const std::vector<FlushPoint>& points,
                                       std::span<const std::uint64_t> shape, const Region& region) {
  std::set<std::uint64_t> blocks;
  for (std::uint64_t o = 0; o < region.number_of_elements(); ++o) {
    const std::uint64_t at = stack_index(shape, region, o);
    const auto after = std::ranges::upper_bound(points, at, {}, &FlushPoint::plain_offset);
    blocks.insert(static_cast<std::uint64_t>(after - points.begin()) - 1);
  }
  return blocks;
}

TEST(RegionReadTest, EveryTouchedBlockInflatesOnceAndNoOtherDoes) {
  // uint8 elements, so that plain offsets are element indices. The 40 MiB stack spans two
  // batches; its 5 MiB blocks straddle the batch boundary and the 8 MiB pieces of long runs.
  const std::uint64_t big = std::uint64_t{40} << 20;
  struct Case {
    std::vector<std::uint64_t> shape;
    std::uint64_t block;
    Region region;
  };
  const std::vector<Case> cases{
      // Many short runs: a column, one element per line, four lines per block.
      {{256, 64, 8}, 1024, Region({5, 0, 0}, {1, 64, 8})},
      // Short runs with gaps of untouched blocks between the planes they lie in.
      {{256, 64, 8}, 1000, Region({0, 3, 1}, {256, 2, 3}, {1, 1, 3})},
      // A strided run along axis 0 and a sub-block.
      {{256, 64, 8}, 777, Region({1, 10, 2}, {80, 20, 3}, {3, 2, 2})},
      {{big}, 5 << 20, Region::whole(std::vector<std::uint64_t>{big})},
      {{4096, big / 4096}, 5 << 20, Region({0, 5}, {4095, big / 4096 - 9})},
  };
  testing::TempDir dir;
  for (const Case& c : cases) {
    const std::uint64_t length = arrays::number_of_elements(c.shape);
    Bytes raw(length);
    for (std::uint64_t i = 0; i < length; ++i) raw[i] = static_cast<std::byte>(i * 7 % 251);
    DiskFile file(dir / "z", DiskFile::Mode::write);
    internal::ZlibSegment writer(file, 0, {1, c.block, {}});
    writer.append(raw);
    const std::uint64_t stored = writer.finish();
    internal::ZlibSegment reader(file, 0, stored, length, writer.flush_points(), {2, {}});

    Bytes got(c.region.number_of_elements());
    internal::read_region(reader, c.shape, c.region,
                          {Tarn::dt::uint8, Tarn::dt::uint8, got.data(), nullptr});
    EXPECT_EQ(got, naive_slice(raw, c.shape, c.region, 1));
    EXPECT_EQ(reader.blocks_inflated(),
              touched_blocks(writer.flush_points(), c.shape, c.region).size());
  }
}

TEST(RegionReadTest, RefusesRegionsOutsideTheStackAndUnwrittenChunks) {
  testing::TempDir dir;
  const std::vector<std::uint64_t> shape{4, 3, 5};
  std::vector<std::uint16_t> data(60, 9);
  auto file = create_file(false);
  file->open(dir / "e.tbf", DiskFile::Mode::write);
  auto stack = file->add_stack(Tarn::dt::uint16, shape);
  stack->set_chunk_wise(true);
  stack->write(std::span<const std::uint16_t>(data).first(24));
  auto unfinished = open_unfinished_file(dir / "e.tbf");
  std::vector<std::uint16_t> out(100);
  // Planes 0 and 1 are committed chunks; plane 2 is not.
  unfinished->stack(0)->read_region(Region({0, 0, 1}, {4, 3, 1}), std::span(out));
  EXPECT_THROW_MESSAGE(
      unfinished->stack(0)->read_region(Region({0, 0, 1}, {4, 3, 2}), std::span(out)),
      std::invalid_argument, "Requested samples have not been written yet.");
  stack->write(std::span<const std::uint16_t>(data).subspan(24));
  stack->commit();

  for (const Region& outside : {Region({0, 0, 0}, {4, 3, 6}), Region({0, 3, 0}, {1, 1, 1}),
                                Region({1, 0, 0}, {2, 1, 1}, {3, 1, 1}), Region({0, 0}, {4, 3})}) {
    EXPECT_THROW_MESSAGE(stack->read_region(outside, std::span(out)), std::invalid_argument,
                         "Region does not fit the stack.");
  }
  EXPECT_THROW_MESSAGE(stack->read_region(Region::whole(shape), std::span(out).first(59)),
                       std::invalid_argument, "Buffer too small for the region.");
  stack->set_progress_callback([](std::uint64_t, std::uint64_t) { return false; });
  EXPECT_THROW_MESSAGE(stack->read_region(Region::whole(shape), std::span(out)), std::runtime_error,
                       "Cancelled by user.");
}

}  // namespace
}  // namespace Tarn::bf

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
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

TEST(RegionReadTest, RandomRegionsMatchTheRawSlicesForEveryTypeAndStorage) {
  const std::vector<std::uint64_t> shape{11, 7, 6};
  testing::TempDir dir;
  std::mt19937 rng(14);
  for (const DataType type : arrays::all_data_types()) {
    const std::size_t element_size = tarn_dt_get_size(type);
    // Storage 0 plain, 1 compressed in blocks that end inside elements and lines, 2 and 3 the
    // same written chunk-wise, two planes a chunk.
    for (int storage = 0; element_size > 0 && storage < 4; ++storage) {
      SCOPED_TRACE(std::string(tarn_dt_get_name(type)) + " storage " + std::to_string(storage));
      Bytes raw(arrays::number_of_elements(shape) * element_size);
      for (std::byte& b : raw) b = static_cast<std::byte>(rng() % 7);
      auto file = create_file(false);
      file->open(dir / "r.tbf", DiskFile::Mode::write);
      auto stack = file->add_stack(type, shape);
      if (storage % 2 == 1) stack->set_compression(StackImp::Compression::zlib, 1);
      if (storage % 2 == 1) stack->set_flush_block_size(301);
      if (storage >= 2) stack->set_chunk_wise(true, shape[0] * shape[1] * 2);
      stack->write(raw.data(), raw.size());
      stack->commit();
      file->close();
      file = open_file(dir / "r.tbf", DiskFile::Mode::read);
      file->set_threading_support({2, {}});
      stack = file->stack(0);
      // Into the stored type and, where the converters go there, into doubles (complex types
      // split into real and imaginary parts).
      const bool complex = (type & Tarn::dt::complex_flag) != 0;
      double probe = 0;
      const bool converts = tarn_dt_convert(type, Tarn::dt::double_, nullptr, nullptr, 0, nullptr,
                                            complex ? &probe : nullptr) == 0;
      for (int round = 0; round < 12; ++round) {
        const Region region = round == 0 ? Region::whole(shape) : random_region(shape, rng);
        const std::uint64_t n = region.number_of_elements();
        const Bytes expected = naive_slice(raw, shape, region, element_size);
        Bytes got(n * element_size);
        stack->read_region(region, got.data());
        ASSERT_EQ(got, expected) << "round " << round;
        if (!converts || n == 0) continue;
        std::vector<double> want(2 * n), read(2 * n);
        tarn_dt_convert(type, Tarn::dt::double_, expected.data(), want.data(), n, nullptr,
                        complex ? want.data() + n : nullptr);
        stack->read_region(region, read.data(), Tarn::dt::double_,
                           complex ? read.data() + n : nullptr);
        ASSERT_EQ(0, std::memcmp(want.data(), read.data(), want.size() * sizeof(double)));
      }
    }
  }
}

TEST(RegionReadTest, EveryTouchedBlockInflatesOnceAndNoOtherDoes) {
  // uint8 elements, so that plain offsets are element indices. The 40 MiB stack spans two
  // batches; its 5 MiB blocks straddle the batch boundary.
  const std::uint64_t rows = (std::uint64_t{40} << 20) / 4096;
  const std::vector<std::tuple<std::vector<std::uint64_t>, std::uint64_t, Region>> cases{
      // A column: one element a line, four lines a block.
      {{256, 64, 8}, 1024, Region({5, 0, 0}, {1, 64, 8})},
      // Short runs with untouched blocks between the planes they lie in.
      {{256, 64, 8}, 1000, Region({0, 3, 1}, {256, 2, 3}, {1, 1, 3})},
      {{4096, rows}, 5 << 20, Region({0, 5}, {4095, rows - 9})},
  };
  testing::TempDir dir;
  for (const auto& [shape, block, region] : cases) {
    Bytes raw(arrays::number_of_elements(shape));
    for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<std::byte>(i * 7 % 251);
    DiskFile file(dir / "z", DiskFile::Mode::write);
    internal::ZlibSegment writer(file, 0, {1, block, {}});
    writer.append(raw);
    const std::uint64_t stored = writer.finish();
    const std::vector<FlushPoint>& points = writer.flush_points();
    internal::ZlibSegment reader(file, 0, stored, raw.size(), points, {2, {}});
    Bytes got(region.number_of_elements());
    internal::read_region(reader, shape, region,
                          {Tarn::dt::uint8, Tarn::dt::uint8, got.data(), nullptr});
    EXPECT_EQ(got, naive_slice(raw, shape, region, 1));
    std::set<std::ptrdiff_t> touched;
    for (std::uint64_t o = 0; o < got.size(); ++o) {
      const std::uint64_t at = stack_index(shape, region, o);
      touched.insert(std::ranges::upper_bound(points, at, {}, &FlushPoint::plain_offset) -
                     points.begin());
    }
    EXPECT_EQ(reader.blocks_inflated(), touched.size());
  }
}

TEST(RegionReadTest, RefusesRegionsOutsideTheStackOrItsCommittedChunks) {
  testing::TempDir dir;
  const std::vector<std::uint16_t> data(60, 9);
  std::vector<std::uint16_t> out(100);
  auto file = create_file(false);
  file->open(dir / "e.tbf", DiskFile::Mode::write);
  auto stack = file->add_stack(Tarn::dt::uint16, {4, 3, 5});
  stack->set_chunk_wise(true);
  stack->write(std::span(data).first(24));
  // Planes 0 and 1 are committed chunks, plane 2 is not.
  const auto reader = open_unfinished_file(dir / "e.tbf");
  const auto unfinished = reader->stack(0);
  unfinished->read_region(Region({0, 0, 1}, {4, 3, 1}), std::span(out));
  EXPECT_THROW_MESSAGE(unfinished->read_region(Region({0, 0, 1}, {4, 3, 2}), std::span(out)),
                       std::invalid_argument, "Requested samples have not been written yet.");
  stack->write(std::span(data).subspan(24));
  stack->commit();
  EXPECT_THROW_MESSAGE(stack->read_region(Region({1, 0, 0}, {2, 1, 1}, {3, 1, 1}), std::span(out)),
                       std::invalid_argument, "Region does not fit the stack.");
}

}  // namespace
}  // namespace Tarn::bf

#include "tarnio/arrays/stack_imp.h"

#include <gtest/gtest.h>

#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/internal/region_copy.h"
#include "tarnio/arrays/region.h"
#include "tarnio/arrays/shape.h"
#include "tarnio/testing/expect_throw_message.h"

namespace {

namespace dt = Tarn::dt;
using Tarn::arrays::Region;
using Tarn::arrays::StackImp;
using Tarn::arrays::internal::copy_region_in;
using Tarn::arrays::internal::copy_region_out;
using Bytes = std::vector<std::byte>;
using Shape = std::vector<std::uint64_t>;

constexpr std::uint64_t kHuge = std::uint64_t{1} << 63;

// Every code of the type table whose elements have a size: what a stack can hold.
std::vector<DataType> sized_types() {
  std::vector<DataType> types;
  for (const DataType type : Tarn::arrays::all_data_types()) {
    if (tarn_dt_get_size(type) > 0) types.push_back(type);
  }
  return types;
}

bool is_floating(DataType type) {
  return type == dt::single || type == dt::double_ || type == dt::cplx_single ||
         type == dt::cplx_double;
}

// `count` elements of `type`: random bits for integers and colours, 0 or 1 for logical, and
// floating values of a few digits, so that no element is a NaN whose bits a cast may change.
Bytes random_elements(DataType type, std::size_t count, std::mt19937_64& rng) {
  const std::size_t size = tarn_dt_get_size(type);
  Bytes bytes(count * size);
  for (std::byte& b : bytes) b = static_cast<std::byte>(rng());
  if (type == dt::logical) {
    for (std::byte& b : bytes) b &= std::byte{1};
  } else if (is_floating(type)) {
    std::uniform_real_distribution<double> value(-3e4, 3e4);
    const bool wide = type == dt::double_ || type == dt::cplx_double;
    const std::size_t parts = bytes.size() / (wide ? 8 : 4);
    for (std::size_t i = 0; i < parts; ++i) {
      if (wide) {
        const double v = value(rng);
        std::memcpy(&bytes[8 * i], &v, 8);
      } else {
        const auto v = static_cast<float>(value(rng));
        std::memcpy(&bytes[4 * i], &v, 4);
      }
    }
  }
  return bytes;
}

// The stack index of every element of `region`, in the region's column-major order.
std::vector<std::uint64_t> region_indices(const Shape& shape, const Region& region) {
  std::vector<std::uint64_t> indices;
  const std::uint64_t count = region.number_of_elements();
  const Shape strides = Tarn::arrays::column_major_strides(shape);
  Shape at(region.rank(), 0);
  for (std::uint64_t n = 0; n < count; ++n) {
    std::uint64_t index = 0;
    for (std::size_t i = 0; i < region.rank(); ++i) {
      index += (region.start()[i] + at[i] * region.step()[i]) * strides[i];
    }
    indices.push_back(index);
    for (std::size_t i = 0; i < region.rank() && ++at[i] == region.size()[i]; ++i) at[i] = 0;
  }
  return indices;
}

// Converts one element the way the region copies must, through the single-element converter;
// logical elements, which it refuses, copy between logical buffers as they are. False when the
// pair is not supported.
bool convert_one(DataType from, DataType to, const std::byte* src, std::byte* dst,
                 const std::byte* src_imag, std::byte* dst_imag) {
  if (from == dt::logical && to == dt::logical && src_imag == nullptr && dst_imag == nullptr) {
    *dst = *src;
    return true;
  }
  return tarn_dt_convert(from, to, src, dst, 1, src_imag, dst_imag) == 0;
}

bool supported(DataType from, DataType to, bool src_imag, bool dst_imag) {
  std::byte scratch[4][16] = {};
  return convert_one(from, to, scratch[0], scratch[1], src_imag ? scratch[2] : nullptr,
                     dst_imag ? scratch[3] : nullptr);
}

std::string conversion_message(DataType from, DataType to) {
  return std::string("Unsupported conversion from '") + tarn_dt_get_name(from) + "' to '" +
         tarn_dt_get_name(to) + "'.";
}

// A stack of random elements with the layout the copies take.
struct TestStack {
  Shape shape;
  DataType type;
  Bytes data;

  Tarn::arrays::internal::StackLayout<const std::byte> view() const {
    return {shape, type, data.data()};
  }
  Tarn::arrays::internal::StackLayout<std::byte> mutable_view() {
    return {shape, type, data.data()};
  }
};

// Copies `region` out of `stack` and into it, each against the element-by-element reference,
// or checks that an unsupported pair is refused with nothing written. The buffers have spare
// elements past the region's, which must stay untouched.
void check_region(TestStack& stack, const Region& region, DataType buffer_type, bool split,
                  std::mt19937_64& rng) {
  SCOPED_TRACE(testing::Message() << "stack " << stack.type << ", buffer " << buffer_type
                                  << ", split " << split);
  const std::size_t count = region.number_of_elements() + 3;
  const std::size_t stack_size = tarn_dt_get_size(stack.type);
  const std::size_t buffer_size = tarn_dt_get_size(buffer_type);
  const auto indices = region_indices(stack.shape, region);
  const DataType buffer_named = split ? buffer_type | dt::complex_flag : buffer_type;
  Bytes real = random_elements(buffer_type, count, rng);
  Bytes imag = split ? random_elements(buffer_type, count, rng) : Bytes{};
  std::byte* const imag_data = split ? imag.data() : nullptr;

  // Out of the stack.
  Bytes expected_real = real;
  Bytes expected_imag = imag;
  if (supported(stack.type, buffer_type, false, split)) {
    for (std::size_t n = 0; n < indices.size(); ++n) {
      convert_one(stack.type, buffer_type, &stack.data[indices[n] * stack_size],
                  &expected_real[n * buffer_size], nullptr,
                  split ? &expected_imag[n * buffer_size] : nullptr);
    }
    copy_region_out(stack.view(), region, buffer_type, real.data(), imag_data);
  } else {
    EXPECT_THROW_MESSAGE(copy_region_out(stack.view(), region, buffer_type, real.data(), imag_data),
                         std::invalid_argument, conversion_message(stack.type, buffer_named));
  }
  EXPECT_EQ(real, expected_real);
  EXPECT_EQ(imag, expected_imag);

  // Into the stack, from new values.
  real = random_elements(buffer_type, count, rng);
  if (split) imag = random_elements(buffer_type, count, rng);
  const std::byte* const in_imag = split ? imag.data() : nullptr;
  Bytes expected_stack = stack.data;
  if (supported(buffer_type, stack.type, split, false)) {
    for (std::size_t n = 0; n < indices.size(); ++n) {
      convert_one(buffer_type, stack.type, &real[n * buffer_size],
                  &expected_stack[indices[n] * stack_size],
                  split ? &imag[n * buffer_size] : nullptr, nullptr);
    }
    copy_region_in(stack.mutable_view(), region, buffer_type, real.data(), in_imag);
  } else {
    EXPECT_THROW_MESSAGE(
        copy_region_in(stack.mutable_view(), region, buffer_type, real.data(), in_imag),
        std::invalid_argument, conversion_message(buffer_named, stack.type));
  }
  EXPECT_EQ(stack.data, expected_stack);
}

TEST(RegionCopy, RandomRegionsAndTypesMatchTheElementwiseReference) {
  std::mt19937_64 rng(7113);
  const std::vector<DataType> types = sized_types();
  const auto pick = [&](std::uint64_t below) { return rng() % below; };
  for (int round = 0; round < 1500; ++round) {
    const std::size_t rank = 1 + pick(5);
    Shape shape(rank);
    Shape start(rank);
    Shape size(rank);
    Shape step(rank);
    for (std::size_t i = 0; i < rank; ++i) {
      shape[i] = 1 + pick(rank <= 2 ? 40 : 7);
      step[i] = pick(4) == 0 ? 1 + pick(5) : 1;
      start[i] = pick(shape[i]);
      const std::uint64_t most = (shape[i] - 1 - start[i]) / step[i] + 1;
      size[i] = pick(25) == 0 ? 0 : 1 + pick(most);
      if (pick(3) == 0) {  // whole axes, so that runs merge
        start[i] = 0;
        step[i] = 1;
        size[i] = shape[i];
      }
    }
    const Region region(start, size, step);
    TestStack stack{shape, types[pick(types.size())], {}};
    stack.data = random_elements(stack.type, Tarn::arrays::number_of_elements(shape), rng);
    // Half of the complex stacks split into and merge from a pair of real buffers.
    const bool split = (stack.type & dt::complex_flag) != 0 && pick(2) == 0;
    const DataType buffer_type = types[pick(types.size())];
    SCOPED_TRACE(testing::Message() << "round " << round);
    check_region(stack, region, buffer_type, split, rng);
  }
}

TEST(RegionCopy, SlicesMatchTheElementwiseReference) {
  const Shape shape{70, 41, 9};
  struct Case {
    const char* name;
    Region region;
  };
  const Case cases[] = {
      {"plane", Region::slice(shape, 2, 4)},
      {"xz plane", Region::slice(shape, 1, 40)},
      {"every second pixel of a plane", Region({0, 1, 3}, {35, 20, 1}, {2, 2, 1})},
      {"line along the slowest axis", Region({5, 7, 0}, {1, 1, 9})},
      {"every third pixel of a column", Region({69, 0, 8}, {1, 14, 1}, {1, 3, 1})},
      {"two columns", Region({10, 0, 0}, {2, 41, 1}, {50, 1, 1})},
      {"whole stack", Region::whole(shape)},
      {"one element", Region({69, 40, 8}, {1, 1, 1})},
      {"column with huge steps on its fixed axes",
       Region({5, 0, 8}, {1, 41, 1}, {kHuge, 1, kHuge})},
  };
  std::mt19937_64 rng(5);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& [from, to] : {std::pair{dt::uint16, dt::uint16},
                                   {dt::uint16, dt::single},
                                   {dt::double_, dt::int8},
                                   {dt::rgb, dt::rgb32}}) {
      TestStack stack{shape, from, random_elements(from, 70 * 41 * 9, rng)};
      check_region(stack, c.region, to, false, rng);
    }
  }
}

TEST(RegionCopy, BadRegionsAndConversionsChangeNothing) {
  std::mt19937_64 rng(11);
  TestStack stack{{4, 3}, dt::uint16, random_elements(dt::uint16, 12, rng)};
  const Bytes stack_before = stack.data;
  Bytes buffer = random_elements(dt::double_, 16, rng);
  const Bytes buffer_before = buffer;
  struct Case {
    const char* name;
    Region region;
    DataType buffer_type;
    bool imag;
    const char* message;
  };
  const Case cases[] = {
      {"wrong rank", Region({0}, {4}), dt::double_, false, "Region does not fit the stack."},
      {"past the end", Region({1, 0}, {4, 1}), dt::double_, false,
       "Region does not fit the stack."},
      {"step past the end", Region({0, 0}, {3, 1}, {2, 1}), dt::double_, false,
       "Region does not fit the stack."},
      {"start and step overflow", Region({kHuge, 0}, {2, 1}, {kHuge, 1}), dt::double_, false,
       "Region does not fit the stack."},
      {"step overflow", Region({1, 0}, {3, 1}, {kHuge, 1}), dt::double_, false,
       "Region does not fit the stack."},
      {"empty axis starting past the end", Region({5, 0}, {0, 3}), dt::double_, false,
       "Region does not fit the stack."},
      {"to logical", Region::whole(stack.shape), dt::logical, false,
       "Unsupported conversion from 'uint16' to 'logical'."},
      {"to a colour", Region::whole(stack.shape), dt::rgb, false,
       "Unsupported conversion from 'uint16' to 'none'."},
      {"to a type without size", Region::whole(stack.shape), dt::cplx_uint16, false,
       "Unsupported conversion from 'uint16' to 'cplx_uint16'."},
      {"split of a real stack", Region({0, 0}, {1, 1}), dt::single, true,
       "Unsupported conversion from 'uint16' to 'cplx_single'."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    void* imag = c.imag ? buffer.data() + 8 * 8 : nullptr;
    EXPECT_THROW_MESSAGE(
        copy_region_out(stack.view(), c.region, c.buffer_type, buffer.data(), imag),
        std::invalid_argument, c.message);
    EXPECT_EQ(buffer, buffer_before);
    // The same region and buffer type copied in; the message names the pair the other way.
    std::string in_message = c.message;
    if (in_message.starts_with("Unsupported")) {
      in_message =
          conversion_message(c.imag ? c.buffer_type | dt::complex_flag : c.buffer_type, dt::uint16);
    }
    EXPECT_THROW_MESSAGE(
        copy_region_in(stack.mutable_view(), c.region, c.buffer_type, buffer.data(), imag),
        std::invalid_argument, in_message);
    EXPECT_EQ(stack.data, stack_before);
  }

  // A null buffer is refused unless the region is empty; an empty axis may start at the end.
  EXPECT_THROW_MESSAGE(copy_region_out(stack.view(), Region({0, 0}, {1, 1}), dt::double_, nullptr),
                       std::invalid_argument, "Null buffer for a non-empty region.");
  EXPECT_THROW_MESSAGE(
      copy_region_in(stack.mutable_view(), Region({0, 0}, {1, 1}), dt::double_, nullptr),
      std::invalid_argument, "Null buffer for a non-empty region.");
  EXPECT_NO_THROW(copy_region_out(stack.view(), Region({4, 0}, {0, 3}), dt::double_, nullptr));
  EXPECT_NO_THROW(
      copy_region_in(stack.mutable_view(), Region({0, 3}, {4, 0}), dt::double_, nullptr));
  EXPECT_EQ(stack.data, stack_before);
}

// Records the flags of every signal a stack raises.
struct FlagLog {
  std::vector<unsigned> flags;
  StackImp::InfoCallback callback() {
    return [this](unsigned f) { flags.push_back(f); };
  }
};

TEST(StackImp, TypedAccessChecksTheElementType) {
  StackImp stack(dt::uint16, Shape{3, 2});
  ASSERT_EQ(stack.data<std::uint16_t>().size(), 6u);
  for (std::uint16_t i = 0; i < 6; ++i) stack.data<std::uint16_t>()[i] = i * 1000;
  float plane[2] = {};
  stack.copy_out(Region({2, 0}, {1, 2}), dt::single, plane);
  EXPECT_EQ(plane[0], 2000.0f);
  EXPECT_EQ(plane[1], 5000.0f);
  EXPECT_THROW_MESSAGE(stack.data<std::int16_t>(), std::invalid_argument,
                       "Element type does not match.");
  const StackImp& const_stack = stack;
  EXPECT_EQ(const_stack.data<std::uint16_t>()[5], 5000);
  EXPECT_THROW_MESSAGE(const_stack.data<float>(), std::invalid_argument,
                       "Element type does not match.");
  StackImp complexes(dt::cplx_single, Shape{2});
  EXPECT_EQ(complexes.data<std::complex<float>>().size(), 2u);
}

// Which flags each change raises is the info's business; here: every callback gets them, a
// removed one no longer, a deferral merges them, and a callback may remove itself.
TEST(StackImp, CallbacksReceiveTheFlagsOfEachChange) {
  StackImp stack(dt::single, Shape{4, 3});
  FlagLog log;
  FlagLog other;
  stack.add_info_callback(log.callback());
  const auto other_id = stack.add_info_callback(other.callback());
  stack.set_name("cells");
  stack.set_name("cells");  // unchanged: no signal
  stack.set_col_positions(1, {0.0, 1.0, 5.0});
  EXPECT_EQ(log.flags, (std::vector<unsigned>{16, 65536 + 1}));
  EXPECT_EQ(other.flags, log.flags);

  stack.remove_info_callback(other_id);
  log.flags.clear();
  stack.beg_defer_info_update_signals();
  stack.set_name("nuclei");
  stack.set_label(0, "x");
  EXPECT_TRUE(log.flags.empty());
  stack.end_defer_info_update_signals(false);
  EXPECT_EQ(log.flags, std::vector<unsigned>{16 | 2});
  EXPECT_EQ(other.flags.size(), 2u);

  int once_calls = 0;
  StackImp::CallbackId once_id = 0;
  once_id = stack.add_info_callback([&](unsigned) {
    ++once_calls;
    stack.remove_info_callback(once_id);
  });
  log.flags.clear();
  stack.set_name("a");
  stack.set_name("b");
  EXPECT_EQ(once_calls, 1);
  EXPECT_EQ(log.flags, (std::vector<unsigned>{16, 16}));
}

TEST(StackImp, RegionOfAStackCopiesDataAndInfo) {
  std::mt19937_64 rng(17);
  for (const DataType type : {dt::int32, dt::logical, dt::rgb, dt::cplx_double}) {
    SCOPED_TRACE(type);
    StackImp source(type, Shape{6, 5, 4});
    const Bytes elements = random_elements(type, 120, rng);
    std::memcpy(source.bytes().data(), elements.data(), elements.size());
    source.set_name("source");
    source.set_label(2, "z");
    const Region region({1, 0, 2}, {3, 5, 1}, {2, 1, 1});

    const StackImp part(source, region);
    EXPECT_EQ(part.type(), type);
    EXPECT_EQ(part.shape(), (Shape{3, 5, 1}));
    EXPECT_EQ(part.name(), "source");
    EXPECT_EQ(part.label(2), "z");
    // Elements keep their bits in their own type.
    const std::size_t size = tarn_dt_get_size(type);
    Bytes expected;
    for (const std::uint64_t index : region_indices(source.shape(), region)) {
      const auto first = elements.begin() + static_cast<std::ptrdiff_t>(index * size);
      expected.insert(expected.end(), first, first + static_cast<std::ptrdiff_t>(size));
    }
    EXPECT_EQ(Bytes(part.bytes().begin(), part.bytes().end()), expected);
  }
  const StackImp source(dt::uint8, Shape{2, 2});
  EXPECT_THROW_MESSAGE(StackImp(source, Region({1, 1}, {2, 1})), std::invalid_argument,
                       "Region does not fit the stack.");
}

TEST(StackImp, CopiesAreDeepAndLeaveTheCallbacksBehind) {
  StackImp original(dt::int16, Shape{3});
  FlagLog log;
  original.add_info_callback(log.callback());
  original.data<std::int16_t>()[1] = 42;

  StackImp copy(original);
  copy.data<std::int16_t>()[1] = -1;
  copy.set_name("copy");
  EXPECT_EQ(original.data<std::int16_t>()[1], 42);
  EXPECT_EQ(original.name(), "");
  EXPECT_TRUE(log.flags.empty());

  StackImp moved(std::move(original));
  EXPECT_EQ(moved.data<std::int16_t>()[1], 42);
  moved.set_name("moved");
  EXPECT_EQ(log.flags, std::vector<unsigned>{16});
}

}  // namespace

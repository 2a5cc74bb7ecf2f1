#include "tarnio/stack_factory/create_stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "tarnio/arrays/region.h"
#include "tarnio/testing/expect_throw_message.h"

namespace {

namespace dt = Tarn::dt;
using Shape = std::vector<std::uint64_t>;

constexpr std::uint64_t kTwoTo(int n) { return std::uint64_t{1} << n; }

// A shape of `rank` axes alternating 2 and 1, so that every rank stays small.
Shape small_shape(std::size_t rank) {
  Shape shape(rank);
  for (std::size_t i = 0; i < rank; ++i) shape[i] = i % 2 == 0 ? 2 : 1;
  return shape;
}

TEST(CreateStack, EveryTypeWithASizeWorksForEveryRank) {
  for (const DataType type : Tarn::arrays::all_data_types()) {
    const std::size_t size = tarn_dt_get_size(type);
    if (size == 0) continue;
    for (std::size_t rank = 0; rank <= Tarn::kMaxStackRank; ++rank) {
      SCOPED_TRACE(testing::Message() << "type " << type << ", rank " << rank);
      const Shape shape = small_shape(rank);
      const auto stack = Tarn::create_stack(type, shape);
      ASSERT_NE(stack, nullptr);
      EXPECT_EQ(stack->type(), type);
      EXPECT_EQ(stack->shape(), shape);
      const std::uint64_t elements = rank == 0 ? 0 : std::uint64_t{1} << ((rank + 1) / 2);
      EXPECT_EQ(stack->number_of_elements(), elements);
      ASSERT_EQ(stack->bytes().size(), elements * size);
      for (const std::byte b : stack->bytes()) ASSERT_EQ(b, std::byte{0});

      // Bytes written through the span come back through a region copy in the stack's type,
      // which no element type refuses.
      for (std::size_t i = 0; i < stack->bytes().size(); ++i) {
        stack->bytes()[i] = static_cast<std::byte>(i % 100 + 1);
      }
      std::vector<std::byte> out(stack->bytes().size());
      stack->copy_out(Tarn::arrays::Region::whole(shape), type, out.data());
      EXPECT_TRUE(std::ranges::equal(out, stack->bytes()));
    }
  }
}

TEST(CreateStack, RefusesBadRanksTypesAndSizes) {
  EXPECT_THROW_MESSAGE(Tarn::create_stack(dt::uint8, small_shape(Tarn::kMaxStackRank + 1)),
                       std::invalid_argument, "Invalid number of dimensions.");
  EXPECT_THROW_MESSAGE(Tarn::create_stack(dt::uint8, Shape(40, 0)), std::invalid_argument,
                       "Invalid number of dimensions.");

  // Types without a size hold empty stacks only.
  for (const DataType type : {dt::none, dt::cell, dt::struct_, dt::char_, dt::empty, dt::cplx_uint8,
                              dt::cplx_int64, dt::cplx_logical}) {
    SCOPED_TRACE(type);
    EXPECT_EQ(Tarn::create_stack(type, {})->bytes().size(), 0u);
    EXPECT_EQ(Tarn::create_stack(type, {3, 0})->number_of_elements(), 0u);
    EXPECT_THROW_MESSAGE(Tarn::create_stack(type, {1}), std::invalid_argument,
                         "Unknown type of elements.");
  }
  // Codes outside the table fail even for empty stacks: array codes, unused bits, odd values.
  for (const DataType type : {dt::array_flag | dt::single, DataType{3}, DataType{0x100},
                              dt::complex_flag | dt::rgb, DataType{-1}}) {
    SCOPED_TRACE(type);
    EXPECT_THROW_MESSAGE(Tarn::create_stack(type, {2}), std::invalid_argument,
                         "Unknown type of elements.");
    EXPECT_THROW_MESSAGE(Tarn::create_stack(type, {}), std::invalid_argument,
                         "Unknown type of elements.");
  }

  // The element count overflows, or the byte count does.
  EXPECT_THROW_MESSAGE(Tarn::create_stack(dt::uint8, {kTwoTo(32), kTwoTo(32)}), std::runtime_error,
                       "The product exceeds the maximum size.");
  EXPECT_THROW_MESSAGE(Tarn::create_stack(dt::double_, {kTwoTo(62), 4}), std::runtime_error,
                       "The product exceeds the maximum size.");
  EXPECT_THROW_MESSAGE(Tarn::create_stack(dt::double_, {kTwoTo(62), 2}), std::runtime_error,
                       "The product exceeds the maximum size.");
  EXPECT_THROW_MESSAGE(Tarn::create_stack(dt::cplx_double, {kTwoTo(60)}), std::runtime_error,
                       "The product exceeds the maximum size.");
  // A zero axis makes any other size harmless.
  EXPECT_EQ(Tarn::create_stack(dt::double_, {kTwoTo(63), 0, kTwoTo(63)})->bytes().size(), 0u);
}

}  // namespace

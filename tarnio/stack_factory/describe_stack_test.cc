#include "tarnio/stack_factory/describe_stack.h"

#include <gtest/gtest.h>

#include <tuple>

#include "tarnio/ome/errors.h"
#include "tarnio/ome/ome_element.h"

namespace {

using Tarn::arrays::StackInfoImp;

TEST(DescribeStack, AxesMapToTheDimensionOrder) {
  struct Case {
    std::vector<std::uint64_t> shape;
    std::vector<std::string> labels;
    std::string order;
    std::array<std::uint64_t, 5> sizes;  // X Y Z C T
  };
  const std::vector<Case> cases{
      {{4, 3, 2}, {}, "XYZCT", {4, 3, 2, 1, 1}},
      {{4, 3, 2, 5}, {"x", "Y", "t", "Z"}, "XYTZC", {4, 3, 5, 1, 2}},
      {{4, 3, 2, 3, 2, 2}, {}, "XYZCT", {4, 3, 2, 3, 4}},  // axes behind the fifth fold into T
      {{4, 3, 2, 2}, {"X", "Y", "C", "C"}, "XYZCT", {4, 3, 2, 2, 1}},
      {{5}, {"X"}, "XYZCT", {5, 1, 1, 1, 1}}};
  for (std::size_t i = 0; i < cases.size(); ++i) {
    StackInfoImp info(Tarn::dt::uint8, cases[i].shape);
    if (!cases[i].labels.empty()) info.set_labels(cases[i].labels);
    OME::Root root;
    OME::Image* image = Tarn::describe_stack(root, info, i);
    ASSERT_NE(image, nullptr);
    const auto& pixels = *image->pixels().get();
    std::array<std::uint64_t, 5> sizes{};
    for (std::size_t d = 0; d < 5; ++d) {
      sizes[d] = pixels.member(std::string("Size") + "XYZCT"[d]).get_uint64();
    }
    EXPECT_EQ(pixels.member("DimensionOrder").get_string(), cases[i].order) << i;
    EXPECT_EQ(sizes, cases[i].sizes) << i;
    EXPECT_EQ(Tarn::stack_images(root, i + 1)[i], image);
    EXPECT_EQ(Tarn::fill_type(*image).number_of_elements(), info.number_of_elements());
  }
}

TEST(DescribeStack, FillingAnInfoFromItsImageGivesTheStackBack) {
  StackInfoImp info(Tarn::dt::uint16, {8, 6, 3, 4, 2});
  info.set_labels({"X", "Y", "C", "Z", "T"});
  info.set_lengths({0.8, 0.6, 3, 2, 10});
  for (const auto& [axis, unit] : {std::pair{0u, "µm"}, {1u, "µm"}, {3u, "nm"}, {4u, "s"}}) {
    info.set_units(axis, Tarn::units::RuntimeValue(1.0, unit));
  }
  info.set_col_labels(2, {"DAPI", "GFP", "mCherry"});
  info.set_name("cells");
  info.set_description("z-stacks over time");
  info.set_timestamp(Tarn::arrays::Timestamp(std::chrono::seconds(1'700'000'000)) +
                     Tarn::arrays::Timestamp::duration(1234567));
  OME::Root root;
  EXPECT_EQ(Tarn::describe_stack(root, info, 3)->member("ID").get_string(), "Image:stack-3");
  // Through the XML form, as a file keeps it.
  OME::Root back;
  back.read_XML(root.XML());
  OME::Image& read = back.images()[0];
  StackInfoImp filled = Tarn::fill_type(read);
  Tarn::fill_description(filled, read);
  EXPECT_TRUE(Tarn::fill_acquisition_date(filled, read));
  EXPECT_EQ(std::make_tuple(filled.type(), filled.shape(), filled.labels(), filled.col_labels(2),
                            filled.name(), filled.description(), filled.timestamp()),
            std::make_tuple(info.type(), info.shape(), info.labels(), info.col_labels(2),
                            info.name(), info.description(), info.timestamp()));
  for (std::size_t axis = 0; axis < 5; ++axis) {
    EXPECT_NEAR(filled.length(axis), info.length(axis), 1e-12) << axis;
    EXPECT_EQ(filled.units(axis), info.units(axis)) << axis;
  }
}

TEST(DescribeStack, TypesWithoutPixelTypeAndEmptyStacksGetNoImage) {
  OME::Root root;
  for (const DataType type : {Tarn::dt::int64, Tarn::dt::logical, Tarn::dt::cplx_int16}) {
    EXPECT_EQ(Tarn::describe_stack(root, StackInfoImp(type, {2, 2}), 0), nullptr) << type;
  }
  EXPECT_EQ(Tarn::describe_stack(root, StackInfoImp(Tarn::dt::uint8, {2, 0}), 0), nullptr);
  EXPECT_TRUE(root.images().empty());
}

TEST(DescribeStack, AcquisitionDatesReadWithTheirZone) {
  // Ticks of 100 ns since the epoch; -1 where the date does not parse.
  const std::vector<std::pair<std::string, std::int64_t>> dates{
      {"1970-01-01T01:00:01.5+01:00", 15'000'000},
      {"1969-12-31T23:00:00-01:00", 0},
      {"1970-13-01T00:00:00", -1},
      {"1970-01-01T00:00:00Zx", -1}};
  for (const auto& [text, ticks] : dates) {
    OME::Root root;
    OME::Image& image = root.images().append(JSON::Value::object({{"AcquisitionDate", text}}));
    StackInfoImp info(Tarn::dt::uint8, {1, 1});
    if (ticks < 0) {
      EXPECT_THROW(Tarn::fill_acquisition_date(info, image), OME::Invalid_Data) << text;
    } else {
      EXPECT_TRUE(Tarn::fill_acquisition_date(info, image)) << text;
      EXPECT_EQ(info.timestamp().time_since_epoch().count(), ticks) << text;
    }
  }
}

}  // namespace

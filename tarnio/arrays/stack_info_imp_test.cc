#include "tarnio/arrays/stack_info_imp.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tarnio/testing/expect_throw_message.h"

namespace {

using Tarn::arrays::Region;
using Tarn::arrays::StackInfoImp;
using Tarn::arrays::StackInfoInterface;
using Tarn::arrays::StackPosition;
using Tarn::arrays::TagValue;
using Tarn::arrays::Timestamp;
using Tarn::units::RuntimeValue;

// Records every signal the info raises.
class RecordingInfo : public StackInfoImp {
 public:
  using StackInfoImp::StackInfoImp;
  std::vector<unsigned> signals;

 protected:
  void signal_info_changed(unsigned flags) override { signals.push_back(flags); }
};

bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

// Every query of the interface agrees between `a` and `b`.
void expect_same_info(const StackInfoInterface& a, const StackInfoInterface& b) {
  EXPECT_EQ(a.type(), b.type());
  ASSERT_EQ(a.shape(), b.shape());
  EXPECT_EQ(a.number_of_elements(), b.number_of_elements());
  EXPECT_EQ(a.name(), b.name());
  EXPECT_EQ(a.description(), b.description());
  EXPECT_EQ(a.labels(), b.labels());
  EXPECT_EQ(a.data_units(), b.data_units());
  EXPECT_EQ(a.stack_position(), b.stack_position());
  EXPECT_EQ(a.timestamp(), b.timestamp());
  for (std::uint64_t axis = 0; axis < a.shape().size(); ++axis) {
    SCOPED_TRACE(axis);
    EXPECT_TRUE(same(a.length(axis), b.length(axis)));
    EXPECT_TRUE(same(a.offset(axis), b.offset(axis)));
    EXPECT_EQ(a.units(axis), b.units(axis));
    EXPECT_EQ(a.is_equidistant(axis), b.is_equidistant(axis));
    EXPECT_EQ(a.col_positions(axis), b.col_positions(axis));
    EXPECT_EQ(a.xy_col_positions(axis), b.xy_col_positions(axis));
    EXPECT_EQ(a.col_labels(axis), b.col_labels(axis));
  }
  ASSERT_EQ(a.tags(), b.tags());
  for (const std::string& name : a.tags()) EXPECT_TRUE(a.tag(name) == b.tag(name)) << name;
}

// An info with something other than the default in every field.
void fill(StackInfoImp& info) {
  info.set_name("cells");
  info.set_description("three planes");
  info.set_labels({"x", "y", "z"});
  info.set_lengths({12.0, 5.0, 2.0});
  info.set_offsets({1.5, -3.0, 0.25});
  info.set_units(0, RuntimeValue(0.5, "um"));
  info.set_units(2, RuntimeValue(2, "um"));
  info.set_data_units(RuntimeValue(1, "s"));
  info.set_col_positions(1, {0.0, 1.0, 4.0, 9.0, 16.0});
  info.set_col_labels(2, {"a", "b", "c"});
  info.set_xy_col_positions(2, {{1, 2}, {3, 4}, {5, 6}});
  StackPosition position;
  position.channel = 3;
  position.stage_um = {10.0, 20.0, 30.0};
  info.set_stack_position(position);
  info.set_timestamp(Timestamp(Timestamp::duration(123456789)));
  info.set_tag("prop", TProp(2.5));
  info.set_tag("json", JSON::Value::object({{"k", JSON::Value(7)}}));
}

TEST(StackInfoGeometry, NewInfoCentresPixelIAtIWhileColPositionsStartHalfALengthLower) {
  StackInfoImp info(Tarn::dt::uint16, {4});
  EXPECT_EQ(info.number_of_elements(), 4u);
  EXPECT_EQ(info.length(0), 4.0);
  EXPECT_EQ(info.offset(0), -0.5);
  EXPECT_TRUE(info.is_equidistant(0));
  EXPECT_EQ(info.col_position(0, 0), 0.0);
  EXPECT_EQ(info.col_position(0, 3), 3.0);
  EXPECT_EQ(info.col_positions(0), (std::vector<double>{-2, -1, 0, 1}));
  EXPECT_EQ(info.labels(), std::vector<std::string>{""});
  EXPECT_EQ(info.units(0), RuntimeValue());
  EXPECT_EQ(info.timestamp().time_since_epoch().count(), 0);
  EXPECT_TRUE(info.tags().empty());
  EXPECT_FALSE(info.is_locked());
}

TEST(StackInfoGeometry, ComputedPositionsFollowLengthAndOffset) {
  StackInfoImp info(Tarn::dt::uint8, {10});
  (void)info.col_positions(0);
  info.set_length(0, 5);
  EXPECT_EQ(info.col_positions(0).front(), -2.75);
  info.set_offset(0, 0);
  EXPECT_EQ(info.col_position(0, 0), 0.25);
  EXPECT_EQ(info.col_positions(0).front(), -2.25);

  // Stored positions win; none makes the axis equidistant and computed again.
  info.set_col_positions(0, {9, 8, 7, 6, 5, 4, 3, 2, 1, 0});
  EXPECT_FALSE(info.is_equidistant(0));
  EXPECT_EQ(info.col_position(0, 2), 7.0);
  info.set_col_positions(0, {});
  EXPECT_TRUE(info.is_equidistant(0));
  ASSERT_EQ(info.col_positions(0).size(), 10u);
  EXPECT_EQ(info.col_positions(0)[1], -1.75);
}

TEST(StackInfoGeometry, ColPositionsAddTheStepRepeatedly) {
  StackInfoImp info(Tarn::dt::uint8, {50});
  info.set_length(0, 5.0);
  info.set_offset(0, 0.3);
  const double step = 5.0 / 50;
  std::vector<double> added;
  bool differs_from_product = false;
  for (double position = 0.3 - 2.5 + step * 0.5; added.size() < 50; position += step) {
    differs_from_product |= position != (0.3 - 2.5 + step * 0.5) + step * double(added.size());
    added.push_back(position);
  }
  ASSERT_TRUE(differs_from_product);  // the two ways of computing must be told apart
  EXPECT_EQ(info.col_positions(0), added);
}

TEST(StackInfoShape, ElementCountRules) {
  EXPECT_EQ(StackInfoImp(Tarn::dt::uint8, {3, 0, 5}).number_of_elements(), 0u);
  EXPECT_EQ(StackInfoImp(Tarn::dt::uint8, std::span<const std::uint64_t>{}).number_of_elements(),
            0u);
  constexpr std::uint64_t k2to32 = std::uint64_t{1} << 32;
  EXPECT_EQ(StackInfoImp(Tarn::dt::uint8, {k2to32, k2to32 - 1}).number_of_elements(),
            std::numeric_limits<std::uint64_t>::max() - k2to32 + 1);
  EXPECT_THROW_MESSAGE(StackInfoImp(Tarn::dt::uint8, {k2to32, k2to32}), std::runtime_error,
                       "The product exceeds the maximum size.");
}

// One setter changing one thing, and the flags it must raise (0: none).
struct FlagRow {
  unsigned flags;
  std::function<void(StackInfoImp&)> change;
};

TEST(StackInfoSignals, EachSetterRaisesItsFlagOnlyWhenTheValueChanges) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  StackPosition position;
  position.plane = 2;
  // clang-format off
  const std::vector<FlagRow> rows = {
      {16,    [](StackInfoImp& i) { i.set_name("n"); }},
      {32,    [](StackInfoImp& i) { i.set_description("d"); }},
      {2,     [](StackInfoImp& i) { i.set_label(1, "y"); }},
      {2,     [](StackInfoImp& i) { i.set_labels({"x", "y"}); }},
      {1,     [](StackInfoImp& i) { i.set_length(1, 2.0); }},
      {1,     [=](StackInfoImp& i) { i.set_length(0, nan); }},
      {1,     [](StackInfoImp& i) { i.set_lengths({1.0, 2.0}); }},
      {4,     [](StackInfoImp& i) { i.set_offset(1, 2.0); }},
      {1,     [](StackInfoImp& i) { i.set_offsets({1.0, 2.0}); }},
      {1,     [](StackInfoImp& i) { i.set_units(1, RuntimeValue(1, "um")); }},
      {4,     [](StackInfoImp& i) { i.set_data_units(RuntimeValue(2, "")); }},
      {1,     [](StackInfoImp& i) { i.set_col_labels(0, {"a", "b", "c"}); }},
      {65537, [](StackInfoImp& i) { i.set_col_positions(1, {1, 2, 3, 4}); }},
      {1,     [](StackInfoImp& i) { i.set_col_positions(0, {1, 2, 3}); }},
      {65537, [=](StackInfoImp& i) { i.set_xy_col_positions(1, {{1, 2}, {3, 4}, {5, nan}, {7, 8}}); }},
      {64,    [](StackInfoImp& i) { i.set_timestamp(Timestamp(Timestamp::duration(5))); }},
      {0,     [=](StackInfoImp& i) { i.set_stack_position(position); }},
      {0,     [](StackInfoImp& i) { i.set_tag("t", TProp(1.0)); }},
  };
  // clang-format on
  for (std::size_t r = 0; r < rows.size(); ++r) {
    SCOPED_TRACE(r);
    RecordingInfo info(Tarn::dt::single, {3, 4});
    rows[r].change(info);
    EXPECT_EQ(info.signals,
              rows[r].flags ? std::vector<unsigned>{rows[r].flags} : std::vector<unsigned>{});
    info.signals.clear();
    rows[r].change(info);
    EXPECT_TRUE(info.signals.empty()) << "the same value again must not signal";
  }
}

TEST(StackInfoSignals, PositionsAndLabelsClearedOrRestoredAsDocumented) {
  RecordingInfo info(Tarn::dt::single, {3, 4});
  info.set_units(0, RuntimeValue(1, "um"));
  info.set_units(0, RuntimeValue(1000, "nm"));  // the same length: kept as given, no signal
  EXPECT_EQ(info.units(0).to_string(), "1000 nm");
  info.set_col_labels(1, {"a", "b", "c", "d"});
  info.set_col_labels(1, {});  // clearing raises nothing
  EXPECT_TRUE(info.col_labels(1).empty());
  (void)info.col_positions(1);
  info.set_col_positions(1, {});              // already equidistant: nothing changed
  info.set_col_positions(1, {-2, -1, 0, 1});  // equal to the computed ones, but now stored
  info.set_col_positions(1, {});
  EXPECT_EQ(info.signals, (std::vector<unsigned>{1, 1, 65537, 65537}));
}

TEST(StackInfoSignals, DeferralMergesNestsAndIgnoresExtraEnds) {
  RecordingInfo info(Tarn::dt::single, {3, 4});
  info.end_defer_info_update_signals();  // nothing open: ignored
  info.beg_defer_info_update_signals();
  info.set_name("a");
  info.beg_defer_info_update_signals();
  info.set_offset(0, 1.0);
  info.set_label(0, "x");
  info.set_name("a");
  info.end_defer_info_update_signals(false);
  EXPECT_TRUE(info.signals.empty());
  info.set_col_positions(1, {1, 2, 3, 4});
  info.end_defer_info_update_signals(false);  // the argument does not suppress the flush
  EXPECT_EQ(info.signals, (std::vector<unsigned>{16 | 4 | 2 | 65537}));

  info.end_defer_info_update_signals();
  info.beg_defer_info_update_signals();
  info.set_name("a");
  info.end_defer_info_update_signals();
  info.set_name("b");
  EXPECT_EQ(info.signals, (std::vector<unsigned>{16 | 4 | 2 | 65537, 16}));
}

// A call that fails on a locked info, and what it reports on an unlocked one ("" when it
// succeeds there).
struct SetterRow {
  std::string unlocked;
  std::function<void(StackInfoImp&)> call;
};

// Throws what `call` throws, as "type: message", or "" when it succeeds.
std::string failure(const std::function<void(StackInfoImp&)>& call, StackInfoImp& info) {
  try {
    call(info);
  } catch (const std::runtime_error& error) {
    return std::string("runtime_error: ") + error.what();
  } catch (const std::invalid_argument& error) {
    return std::string("invalid_argument: ") + error.what();
  }
  return "";
}

TEST(StackInfoFailures, LockComesFirstAndAFailedSetterChangesNothing) {
  const std::string axis = "invalid_argument: Invalid axis specified.";
  const std::string fit = "invalid_argument: Region does not fit the stack.";
  // clang-format off
  const std::vector<SetterRow> rows = {
      {"", [](StackInfoImp& i) { i.set_name("x"); }},
      {"", [](StackInfoImp& i) { i.set_description("x"); }},
      {"", [](StackInfoImp& i) { i.set_data_units(RuntimeValue(3, "")); }},
      {"", [](StackInfoImp& i) { i.set_stack_position(StackPosition()); }},
      {"", [](StackInfoImp& i) { i.set_timestamp(); }},
      {axis, [](StackInfoImp& i) { i.set_label(3, "x"); }},
      {axis, [](StackInfoImp& i) { i.set_length(3, 1); }},
      {axis, [](StackInfoImp& i) { i.set_offset(99, 1); }},
      {axis, [](StackInfoImp& i) { i.set_units(3, RuntimeValue()); }},
      {axis, [](StackInfoImp& i) { i.set_col_labels(3, {}); }},
      {axis, [](StackInfoImp& i) { i.set_col_positions(3, {}); }},
      {axis, [](StackInfoImp& i) { i.set_xy_col_positions(3, {}); }},
      {"invalid_argument: Wrong number of labels.", [](StackInfoImp& i) { i.set_labels({"a", "b"}); }},
      {"invalid_argument: Wrong number of labels.", [](StackInfoImp& i) { i.set_col_labels(0, {"a"}); }},
      {"invalid_argument: Wrong number of axes.", [](StackInfoImp& i) { i.set_lengths({1, 2, 3, 4}); }},
      {"invalid_argument: Wrong number of axes.", [](StackInfoImp& i) { i.set_offsets({}); }},
      {"invalid_argument: Wrong number of positions.", [](StackInfoImp& i) { i.set_col_positions(0, {1, 2}); }},
      {"invalid_argument: Wrong number of positions.", [](StackInfoImp& i) { i.set_xy_col_positions(2, {{1, 2}}); }},
      {"runtime_error: Cannot transform meta-data: Source and destination slice shapes do not match.",
       [](StackInfoImp& i) { i.initialize(i, Region({0, 0, 0}, {12, 5, 2}), Region({0, 0, 0}, {12, 5, 3})); }},
      {fit, [](StackInfoImp& i) { i.initialize(StackInfoImp(Tarn::dt::uint8, {4, 4}), Region({0, 0}, {4, 5}), Region({0, 0, 0}, {4, 5, 1})); }},
      {fit, [](StackInfoImp& i) { i.initialize(i, Region::whole(i.shape()), Region({0, 0, 1}, {12, 5, 3})); }},
  };
  // clang-format on
  StackInfoImp original(Tarn::dt::int32, {12, 5, 3});
  fill(original);
  for (std::size_t r = 0; r < rows.size(); ++r) {
    SCOPED_TRACE(r);
    StackInfoImp info(original);
    info.lock();
    EXPECT_EQ(failure(rows[r].call, info), "runtime_error: Cannot set values: Object locked.");
    expect_same_info(info, original);
    StackInfoImp unlocked(original);
    EXPECT_EQ(failure(rows[r].call, unlocked), rows[r].unlocked);
    if (!rows[r].unlocked.empty()) expect_same_info(unlocked, original);
  }
}

TEST(StackInfoFailures, QueriesWorkOnALockedInfoAndSetTagToo) {
  StackInfoImp info(Tarn::dt::int32, {12, 5, 3});
  fill(info);
  info.lock();
  EXPECT_EQ(info.col_position(1, 3), 9.0);
  EXPECT_THROW_MESSAGE((void)info.col_position(0, 12), std::invalid_argument,
                       "Invalid pixel position.");
  EXPECT_THROW_MESSAGE((void)info.col_positions(3), std::invalid_argument,
                       "Invalid axis specified.");
  EXPECT_THROW_MESSAGE((void)info.tag("missing"), std::out_of_range, "invalid map<K, T> key");
  EXPECT_THROW_MESSAGE((void)std::as_const(info).tag("Prop"), std::out_of_range,
                       "invalid map<K, T> key");
  info.set_tag("late", JSON::Value("ok"));
  EXPECT_TRUE(info.tag("late") == TagValue(JSON::Value("ok")));
  // A copy is the same object in every respect, lock included.
  EXPECT_TRUE(StackInfoImp(info).is_locked());
  EXPECT_FALSE(StackInfoImp(info, Tarn::dt::uint8).is_locked());
}

TEST(StackInfoTags, SortedNamesDeepCopiesAndUncheckedAccess) {
  StackInfoImp info(Tarn::dt::uint8, {2});
  for (const char* name : {"\xC3\xA9t\xC3\xA9", "b", "B", "_", "a"}) info.set_tag(name, TProp(1));
  info.set_tag("a", JSON::Value::list({1, 2}));
  EXPECT_EQ(info.tags(), (std::vector<std::string>{"B", "_", "a", "b", "\xC3\xA9t\xC3\xA9"}));
  EXPECT_TRUE(info.tag("a") == TagValue(JSON::Value::list({1, 2})));

  StackInfoImp copy(info);
  std::get<JSON::Value>(copy.tag("a")).push_back(3);
  std::get<TProp>(copy.tag("b")) = TProp("changed");
  EXPECT_EQ(std::get<JSON::Value>(info.tag("a")).size(), 2u);
  EXPECT_TRUE(std::get<TProp>(info.tag("b")) == TProp(1));
  EXPECT_EQ(std::get<JSON::Value>(copy.tag("a")).size(), 3u);
}

TEST(StackInfoTags, SafeTagsSerialiseTwoThreads) {
  StackInfoImp info(Tarn::dt::uint8, {2});
  info.set_tag("count", JSON::Value(0));
  auto work = [&info](int id) {
    for (int i = 0; i < 500; ++i) {
      {
        auto tags = info.safe_tags();
        auto value = tags->at("count").access();
        std::get<JSON::Value>(*value) = JSON::Value(std::get<JSON::Value>(*value).get_int64() + 1);
      }
      std::string name = std::to_string(id);
      name.append(1, '_').append(std::to_string(i));
      info.set_tag(name, TProp(i));
    }
  };
  std::thread other(work, 1);
  work(2);
  other.join();
  EXPECT_EQ(std::get<JSON::Value>(info.tag("count")).get_int64(), 1000);
  EXPECT_EQ(info.tags().size(), 1001u);
}

TEST(StackInfoCopies, CopyMoveAndRetypeKeepEverything) {
  StackInfoImp original(Tarn::dt::int32, {12, 5, 3});
  fill(original);
  StackInfoImp copy(original);
  expect_same_info(copy, original);

  StackInfoImp retyped(original, Tarn::dt::double_);
  EXPECT_EQ(retyped.type(), Tarn::dt::double_);
  StackInfoImp same_type(retyped, Tarn::dt::int32);
  expect_same_info(same_type, original);

  StackInfoImp moved(std::move(copy));
  expect_same_info(moved, original);

  // A copy taken inside a deferral signals at once.
  RecordingInfo recording(Tarn::dt::uint8, {2});
  recording.beg_defer_info_update_signals();
  RecordingInfo recording_copy(recording);
  recording_copy.set_name("x");
  EXPECT_EQ(recording_copy.signals, std::vector<unsigned>{16});
}

// Pixel k of every mapped axis pair sits where it sat in the source.
void expect_positions_kept(const StackInfoInterface& from, const Region& source,
                           const StackInfoInterface& to, const Region& destination,
                           const std::vector<std::pair<std::size_t, std::size_t>>& pairs) {
  for (const auto& [s, d] : pairs) {
    SCOPED_TRACE(testing::Message() << "axes " << s << " -> " << d);
    for (std::uint64_t k = 0; k < source.size()[s]; ++k) {
      const double expected = from.col_position(s, source.start()[s] + k * source.step()[s]);
      const double got = to.col_position(d, destination.start()[d] + k * destination.step()[d]);
      EXPECT_NEAR(got, expected, 1e-9 * (1 + std::abs(expected))) << "pixel " << k;
    }
  }
}

TEST(StackInfoRegions, RandomRegionsKeepThePhysicalPlaceOfEveryPixel) {
  std::mt19937_64 rng(7);
  auto below = [&rng](std::uint64_t n) { return rng() % n; };
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    const std::vector<std::uint64_t> shape = {1 + below(9), 1 + below(9), 1 + below(5)};
    StackInfoImp info(Tarn::dt::uint16, shape);
    for (std::uint64_t a = 0; a < 3; ++a) {
      info.set_length(a, 0.1 + double(below(1000)) / 37.0);
      info.set_offset(a, double(below(2000)) / 13.0 - 70.0);
    }
    std::vector<std::uint64_t> start(3), size(3), step(3);
    for (std::size_t a = 0; a < 3; ++a) {
      start[a] = below(shape[a]);
      step[a] = 1 + below(3);
      size[a] = 1 + (shape[a] - 1 - start[a]) / step[a];
      size[a] = 1 + below(size[a]);
    }
    const Region region(start, size, step);
    StackInfoImp part(info, region);
    EXPECT_EQ(part.shape(), size);
    expect_positions_kept(info, region, part, Region::whole(size), {{0, 0}, {1, 1}, {2, 2}});

    // The same pixels placed with another start and step into a larger stack.
    std::vector<std::uint64_t> big(3), d_start(3), d_step(3);
    for (std::size_t a = 0; a < 3; ++a) {
      d_step[a] = 1 + below(3);
      d_start[a] = below(4);
      big[a] = d_start[a] + (size[a] - 1) * d_step[a] + 1 + below(3);
    }
    const Region destination(d_start, size, d_step);
    StackInfoImp placed(Tarn::dt::uint16, big);
    placed.initialize(info, region, destination);
    expect_positions_kept(info, region, placed, destination, {{0, 0}, {1, 1}, {2, 2}});
  }
}

TEST(StackInfoRegions, PlaneOfAThreeDInfoIntoATwoDInfo) {
  StackInfoImp volume(Tarn::dt::int32, {12, 5, 3});
  fill(volume);
  const Region plane({0, 0, 1}, {12, 5, 1});
  RecordingInfo flat(Tarn::dt::single, {12, 5});
  flat.set_label(1, "old");
  flat.signals.clear();
  flat.initialize(volume, plane, Region::whole(flat.shape()));

  // One merged signal: geometry, labels, offsets and data unit, name, description, time.
  EXPECT_EQ(flat.signals, (std::vector<unsigned>{1 | 2 | 4 | 16 | 32 | 64 | 65537}));
  EXPECT_EQ(flat.type(), Tarn::dt::single);
  EXPECT_EQ(flat.labels(), (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(flat.units(0), RuntimeValue(0.5, "um"));
  EXPECT_FALSE(flat.is_equidistant(1));
  EXPECT_EQ(flat.col_positions(1), volume.col_positions(1));
  EXPECT_EQ(flat.name(), "cells");
  EXPECT_EQ(flat.stack_position(), volume.stack_position());
  EXPECT_EQ(flat.tags(), volume.tags());
  expect_positions_kept(volume, plane, flat, Region::whole(flat.shape()), {{0, 0}, {1, 1}});

  // Rows 1 and 3 of column 4 through all planes: the per-pixel vectors of the pixels taken
  // come along onto a destination that takes its whole axes.
  const Region rows({4, 1, 0}, {1, 2, 3}, {1, 2, 1});
  const Region all_of_it({0, 0}, {2, 3});
  StackInfoImp yz(volume, rows, all_of_it);
  EXPECT_EQ(yz.labels(), (std::vector<std::string>{"y", "z"}));
  EXPECT_EQ(yz.col_positions(0), (std::vector<double>{1.0, 9.0}));
  EXPECT_EQ(yz.col_labels(1), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(yz.xy_col_positions(1), volume.xy_col_positions(2));
  expect_positions_kept(volume, rows, yz, all_of_it, {{1, 0}, {2, 1}});

  // A destination axis taken in part keeps its own per-pixel vectors.
  StackInfoImp wide(Tarn::dt::single, {12, 6});
  wide.set_col_positions(0, std::vector<double>(12, 1.0));
  wide.set_col_labels(1, {"p", "q", "r", "s", "t", "u"});
  const Region every_other({0, 1}, {12, 3}, {1, 2});
  const Region xz({0, 2, 0}, {12, 1, 3});
  wide.initialize(volume, xz, every_other);
  EXPECT_TRUE(wide.is_equidistant(0));
  EXPECT_EQ(wide.col_labels(1)[0], "p");
  expect_positions_kept(volume, xz, wide, every_other, {{0, 0}, {2, 1}});
}

}  // namespace

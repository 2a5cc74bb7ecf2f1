#include "tarnio/stack_factory/describe_stack.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <optional>
#include <string_view>

#include "tarnio/ome/errors.h"
#include "tarnio/ome/ome_element.h"
#include "tarnio/ome/quantity.h"

namespace Tarn {
namespace {

using arrays::StackInfoInterface;
using arrays::Timestamp;

struct PixelType {
  DataType type;
  std::string_view keyword;
};

constexpr std::array<PixelType, 10> kPixelTypes{{{dt::int8, "int8"},
                                                 {dt::int16, "int16"},
                                                 {dt::int32, "int32"},
                                                 {dt::uint8, "uint8"},
                                                 {dt::uint16, "uint16"},
                                                 {dt::uint32, "uint32"},
                                                 {dt::single, "float"},
                                                 {dt::double_, "double"},
                                                 {dt::cplx_single, "complex"},
                                                 {dt::cplx_double, "double-complex"}}};

constexpr std::string_view kImagePrefix = "Image:stack-";
constexpr std::string_view kDimensions = "XYZCT";

// The attribute that holds the pixel size of each letter, or nothing for C.
std::string_view size_attribute(char letter) {
  switch (letter) {
    case 'X':
      return "PhysicalSizeX";
    case 'Y':
      return "PhysicalSizeY";
    case 'Z':
      return "PhysicalSizeZ";
    case 'T':
      return "TimeIncrement";
    default:
      return {};
  }
}

// The letter of each axis: from the labels when they name X, Y, then distinct ones of Z, C,
// T; else X, Y, Z, C, T by position, with every axis behind the fifth a T.
std::string axis_letters(const StackInfoInterface& info) {
  const std::size_t rank = info.shape().size();
  std::string named;
  for (std::size_t axis = 0; axis < rank && axis < kDimensions.size(); ++axis) {
    const std::string& label = info.label(axis);
    if (label.size() != 1) break;
    const char letter = static_cast<char>(std::toupper(static_cast<unsigned char>(label[0])));
    const bool fits = axis < 2 ? letter == kDimensions[axis]
                               : kDimensions.find(letter, 2) != std::string_view::npos &&
                                     named.find(letter) == std::string::npos;
    if (!fits) break;
    named += letter;
  }
  if (named.size() == rank) return named;
  std::string positional(kDimensions.substr(0, std::min(rank, kDimensions.size())));
  positional.resize(rank, 'T');
  return positional;
}

// "XY", the letters of the further axes in order, then the missing ones of Z, C, T.
std::string dimension_order(const std::string& letters) {
  std::string order = "XY";
  for (std::size_t axis = 2; axis < letters.size(); ++axis) {
    if (order.find(letters[axis]) == std::string::npos) order += letters[axis];
  }
  for (const char letter : kDimensions.substr(2)) {
    if (order.find(letter) == std::string::npos) order += letter;
  }
  return order;
}

std::optional<std::string> format_date(Timestamp time) {
  using namespace std::chrono;
  const auto day = floor<days>(time);
  const year_month_day date{day};
  if (date.year() < year(1) || date.year() > year(9999)) return std::nullopt;
  const std::int64_t ticks = (time - day).count();
  const std::int64_t seconds = ticks / 10'000'000;
  std::string text =
      fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  seconds / 3600, seconds / 60 % 60, seconds % 60);
  if (const std::int64_t fraction = ticks % 10'000'000; fraction != 0) {
    text += fmt::format(".{:07}", fraction);
  }
  return text + "Z";
}

// Reads xsd:dateTime as OME writes it: YYYY-MM-DDThh:mm:ss, optional fraction, optional Z or
// offset; a time without zone is taken as UTC.
std::optional<Timestamp> parse_date(std::string_view text) {
  using namespace std::chrono;
  std::size_t at = 0;
  const auto number = [&](std::size_t digits, char separator) -> std::optional<int> {
    if (text.size() < at + digits) return std::nullopt;
    int value = 0;
    const char* begin = text.data() + at;
    const auto [end, error] = std::from_chars(begin, begin + digits, value);
    if (error != std::errc() || end != begin + digits) return std::nullopt;
    at += digits;
    if (separator != 0) {
      if (at >= text.size() || text[at] != separator) return std::nullopt;
      ++at;
    }
    return value;
  };
  const auto y = number(4, '-'), mo = number(2, '-'), d = number(2, 'T');
  const auto h = y && mo && d ? number(2, ':') : std::nullopt;
  const auto mi = h ? number(2, ':') : std::nullopt;
  const auto s = mi ? number(2, 0) : std::nullopt;
  if (!s) return std::nullopt;
  const year_month_day date{year(*y), month(static_cast<unsigned>(*mo)),
                            day(static_cast<unsigned>(*d))};
  if (!date.ok() || *h > 23 || *mi > 59 || *s > 59) return std::nullopt;
  std::int64_t ticks = ((*h * 60LL + *mi) * 60 + *s) * 10'000'000;
  if (at < text.size() && text[at] == '.') {
    std::int64_t scale = 1'000'000;
    for (++at; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); ++at) {
      ticks += (text[at] - '0') * scale;
      scale /= 10;
    }
  }
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    const int sign = text[at] == '+' ? 1 : -1;
    ++at;
    const auto oh = number(2, ':');
    const auto om = oh ? number(2, 0) : std::nullopt;
    if (!om) return std::nullopt;
    ticks -= sign * (*oh * 60LL + *om) * 60 * 10'000'000;
  } else if (at < text.size() && text[at] == 'Z') {
    ++at;
  }
  if (at != text.size()) return std::nullopt;
  return Timestamp(sys_days(date).time_since_epoch()) + Timestamp::duration(ticks);
}

// So that 0.3 µm over 3 pixels are 0.1 µm, not 0.09999999999999999.
double to_15_digits(double value) {
  const std::string text = fmt::format("{:.15g}", value);
  double rounded = value;
  std::from_chars(text.data(), text.data() + text.size(), rounded);
  return rounded;
}

// The pixel size of `axis` in its unit, when it has a unit of OME's for `attribute`.
void describe_pixel_size(OME::Image::Pixels& pixels, std::string_view attribute,
                         const StackInfoInterface& info, std::size_t axis) {
  const units::RuntimeValue& unit = info.units(axis);
  const units::RuntimeValue pixel =
      unit * to_15_digits(info.length(axis) / double(info.shape()[axis]));
  if (attribute.empty() || unit.unit().is_dimensionless() || !std::isfinite(pixel.value()) ||
      pixel.value() <= 0) {
    return;
  }
  try {
    OME::set_quantity(pixels, "Pixels", attribute, pixel);
  } catch (const OME::Invalid_Argument&) {
    // A unit that OME has no keyword for leaves the size undescribed.
  }
}

std::string image_ID(const OME::Image& image) {
  const JSON::Value* id = image.find_member("ID");
  return id != nullptr && id->is_string() ? std::string(id->get_string()) : std::string();
}

std::uint64_t pixel_count(const OME::Image& image, const OME::Image::Pixels& pixels, char letter) {
  const JSON::Value* size = pixels.find_member(fmt::format("Size{}", letter));
  const double count = size != nullptr && size->is_number() ? size->get_double() : 0;
  if (!(count >= 1 && count <= 0x1p53) || count != std::floor(count)) {
    throw OME::Invalid_Data(
        fmt::format("Invalid Size{} in the pixels of image '{}'.", letter, image_ID(image)));
  }
  return static_cast<std::uint64_t>(count);
}

OME::Image::Pixels& pixels_of(OME::Image& image) {
  OME::Image::Pixels* pixels = image.pixels().get();
  if (pixels == nullptr) {
    throw OME::Invalid_Data(fmt::format("Image '{}' has no pixels description.", image_ID(image)));
  }
  return *pixels;
}

// The letters of the image's axes: X, Y, then Z, C and T in the dimension order.
std::string image_letters(const OME::Image& image, const OME::Image::Pixels& pixels) {
  const JSON::Value* order = pixels.find_member("DimensionOrder");
  if (order == nullptr || !order->is_string() || order->get_string().size() != 5 ||
      !order->get_string().starts_with("XY")) {
    throw OME::Invalid_Data(
        fmt::format("Invalid DimensionOrder in the pixels of image '{}'.", image_ID(image)));
  }
  return std::string(order->get_string());
}

}  // namespace

std::string stack_image_ID(std::size_t index) { return fmt::format("{}{}", kImagePrefix, index); }

OME::Image* describe_stack(OME::Root& root, const StackInfoInterface& info, std::size_t index) {
  const auto type = std::find_if(kPixelTypes.begin(), kPixelTypes.end(),
                                 [&](const PixelType& t) { return t.type == info.type(); });
  if (type == kPixelTypes.end() || info.number_of_elements() == 0) return nullptr;

  const std::string letters = axis_letters(info);
  OME::Image& image = root.images().append();
  image.set_member("ID", stack_image_ID(index));
  if (!info.name().empty()) image.set_member("Name", info.name());
  if (const auto date = format_date(info.timestamp()); date && info.timestamp() != Timestamp{}) {
    image.set_member("AcquisitionDate", JSON::Value::list({*date}));
  }
  if (!info.description().empty()) {
    image.set_member("Description", JSON::Value::list({info.description()}));
  }

  OME::Image::Pixels& pixels = image.pixels().provide();
  pixels.set_member("ID", fmt::format("Pixels:stack-{}", index));
  pixels.set_member("DimensionOrder", dimension_order(letters));
  pixels.set_member("Type", type->keyword);
  for (const char letter : kDimensions) {
    std::uint64_t size = 1;
    for (std::size_t axis = 0; axis < letters.size(); ++axis) {
      if (letters[axis] == letter) size *= info.shape()[axis];
    }
    pixels.set_member(fmt::format("Size{}", letter), size);
    const auto first = letters.find(letter);
    if (first != std::string::npos && first == letters.rfind(letter)) {
      describe_pixel_size(pixels, size_attribute(letter), info, first);
    }
  }

  const auto channel_axis = letters.find('C');
  const std::uint64_t channels = channel_axis == std::string::npos ? 1 : info.shape()[channel_axis];
  const std::vector<std::string>* names =
      channel_axis == std::string::npos ? nullptr : &info.col_labels(channel_axis);
  for (std::uint64_t c = 0; c < channels; ++c) {
    JSON::Value channel = JSON::Value::object(
        {{"ID", fmt::format("Channel:stack-{}:{}", index, c)}, {"SamplesPerPixel", 1}});
    if (names != nullptr && names->size() == channels) channel.set("Name", (*names)[c]);
    pixels.channels().append(std::move(channel));
  }
  pixels.set_member("MetadataOnly", JSON::Value::list({""}));
  return &image;
}

std::optional<std::size_t> described_stack(const OME::Image& image) {
  const std::string id = image_ID(image);
  if (!id.starts_with(kImagePrefix)) return std::nullopt;
  const std::string_view tail = std::string_view(id).substr(kImagePrefix.size());
  std::size_t index = 0;
  const auto [end, error] = std::from_chars(tail.data(), tail.data() + tail.size(), index);
  if (error != std::errc() || end != tail.data() + tail.size()) return std::nullopt;
  return index;
}

std::vector<OME::Image*> stack_images(OME::Root& root, std::size_t number_of_stacks) {
  std::vector<OME::Image*> images(number_of_stacks, nullptr);
  OME::OME* ome = root.ome();
  if (ome == nullptr) return images;
  for (OME::Image& image : ome->images()) {
    const auto index = described_stack(image);
    if (index && *index < number_of_stacks && images[*index] == nullptr) images[*index] = &image;
  }
  return images;
}

arrays::StackInfoImp fill_type(OME::Image& image) {
  OME::Image::Pixels& pixels = pixels_of(image);
  const JSON::Value* keyword = pixels.find_member("Type");
  const std::string_view text =
      keyword != nullptr && keyword->is_string() ? keyword->get_string() : std::string_view();
  const auto type = std::find_if(kPixelTypes.begin(), kPixelTypes.end(),
                                 [&](const PixelType& t) { return t.keyword == text; });
  if (type == kPixelTypes.end()) {
    throw OME::Invalid_Data(fmt::format("Unsupported pixel type '{}'.", text));
  }
  std::vector<std::uint64_t> sizes;
  for (const char letter : image_letters(image, pixels)) {
    sizes.push_back(pixel_count(image, pixels, letter));
  }
  while (sizes.size() > 2 && sizes.back() == 1) sizes.pop_back();
  return arrays::StackInfoImp(type->type, sizes);
}

void fill_description(StackInfoInterface& info, OME::Image& image) {
  OME::Image::Pixels& pixels = pixels_of(image);
  const std::string letters = image_letters(image, pixels).substr(0, info.shape().size());
  if (const JSON::Value* name = image.find_member("Name"); name != nullptr && name->is_string()) {
    info.set_name(std::string(name->get_string()));
  }
  if (const JSON::Value* text = image.find_member("Description");
      text != nullptr && text->is_list() && text->size() == 1 && text->at(0).is_string()) {
    info.set_description(std::string(text->at(0).get_string()));
  }
  for (std::size_t axis = 0; axis < letters.size(); ++axis) {
    info.set_label(axis, std::string(1, letters[axis]));
    const std::string_view attribute = size_attribute(letters[axis]);
    if (attribute.empty()) continue;
    if (const auto pixel = OME::quantity(pixels, "Pixels", attribute)) {
      info.set_length(axis, pixel->value() * double(info.shape()[axis]));
      info.set_units(axis, units::RuntimeValue(1.0, pixel->unit()));
    }
  }
  const auto channel_axis = letters.find('C');
  auto& channels = pixels.channels();
  if (channel_axis == std::string::npos || channels.size() != info.shape()[channel_axis]) return;
  std::vector<std::string> names;
  for (const OME::Channel& channel : channels) {
    const JSON::Value* name = channel.find_member("Name");
    if (name == nullptr || !name->is_string()) return;
    names.emplace_back(name->get_string());
  }
  info.set_col_labels(channel_axis, names);
}

bool fill_acquisition_date(StackInfoInterface& info, const OME::Image& image) {
  const JSON::Value* date = image.find_member("AcquisitionDate");
  if (date == nullptr) return false;
  const JSON::Value* text = date->is_list() && date->size() == 1 ? &date->at(0) : date;
  const std::optional<Timestamp> time =
      text->is_string() ? parse_date(text->get_string()) : std::nullopt;
  if (!time) {
    throw OME::Invalid_Data(
        fmt::format("Invalid AcquisitionDate '{}'.", text->is_string() ? text->get_string() : "?"));
  }
  info.set_timestamp(*time);
  return true;
}

}  // namespace Tarn

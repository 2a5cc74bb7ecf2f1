// tarn demo: writes a sample acquisition, a synthetic 3-channel z-stack of 16-bit camera images
// and its maximum-intensity projection, reads it back, checks every sample and every piece of
// the description against what was written, and prints the file's info.
//
// The images: a dark offset of 100 counts, shot noise (Poisson, in its normal approximation
// where counts are large) and Gaussian read noise from a fixed seed, and per channel a few blurred
// objects (nuclei in DAPI, cell bodies in GFP, small vesicles in mCherry) that come into and go out
// of focus along z.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/stack_position.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/json/value.h"
#include "tarnio/props/json.h"
#include "tarnio/units/runtime_value.h"
#include "tools/tarn/commands.h"

namespace tarn {
namespace {

using Tarn::arrays::StackInfoInterface;
using Tarn::bf::StackImp;

struct DemoOptions {
  std::string out = "demo.tbf";
};

constexpr std::uint64_t kWidth = 256;
constexpr std::uint64_t kHeight = 256;
constexpr std::uint64_t kChannels = 3;
constexpr std::uint64_t kPlanes = 16;
constexpr std::uint64_t kPlaneSamples = kWidth * kHeight * kChannels;  // one z position
constexpr double kPixelUm = 0.1;
constexpr double kPlaneStepUm = 0.25;
constexpr double kStageUm[3] = {1250.0, -830.0, 10.0};
constexpr double kDarkOffset = 100.0;
constexpr double kReadNoise = 2.5;
constexpr std::uint32_t kSeed = 20240611;
const std::vector<std::string> kChannelNames{"DAPI", "GFP", "mCherry"};

// One blurred object: centre in pixels and planes, widths (standard deviations) and peak
// photon count.
struct Blob {
  double x, y, z, sigma_xy, sigma_z, peak;
};

// Per channel: how many objects, their size range in pixels, their depth of focus in planes,
// their brightness range and the channel's autofluorescence background.
struct ChannelLook {
  int count;
  double min_sigma, max_sigma, sigma_z, min_peak, max_peak, background;
};
constexpr ChannelLook kLooks[kChannels] = {
    {6, 9.0, 14.0, 3.0, 1200.0, 2600.0, 15.0},  // nuclei
    {6, 18.0, 26.0, 4.5, 300.0, 700.0, 40.0},   // cell bodies
    {24, 1.5, 2.5, 1.2, 900.0, 2200.0, 10.0},   // vesicles
};

// Photons counted for an expected number `mean`: Poisson below 12 photons, above it its normal
// approximation (variance = mean), which looks the same and costs far less.
double shot_noise(double mean, std::mt19937& random, std::normal_distribution<double>& normal) {
  if (mean < 12.0) return static_cast<double>(std::poisson_distribution<int>(mean)(random));
  return std::max(0.0, std::round(mean + std::sqrt(mean) * normal(random)));
}

// Adds the blob's expected photons at focal plane z, within four widths of its centre.
void add_blob(const Blob& blob, double z, std::vector<double>& expected) {
  const double dz = (z - blob.z) / blob.sigma_z;
  const double scale = blob.peak * std::exp(-0.5 * dz * dz);
  if (scale < 0.01) return;
  const auto range = [&](double centre, std::uint64_t size) {
    const double reach = 4.0 * blob.sigma_xy;
    return std::pair{static_cast<std::uint64_t>(std::clamp(centre - reach, 0.0, double(size))),
                     static_cast<std::uint64_t>(std::clamp(centre + reach, 0.0, double(size)))};
  };
  const auto [x0, x1] = range(blob.x, kWidth);
  const auto [y0, y1] = range(blob.y, kHeight);
  std::vector<double> gx(x1 - x0);
  for (std::uint64_t x = x0; x < x1; ++x) {
    const double d = (static_cast<double>(x) - blob.x) / blob.sigma_xy;
    gx[x - x0] = std::exp(-0.5 * d * d);
  }
  for (std::uint64_t y = y0; y < y1; ++y) {
    const double d = (static_cast<double>(y) - blob.y) / blob.sigma_xy;
    const double gy = scale * std::exp(-0.5 * d * d);
    double* row = expected.data() + y * kWidth;
    for (std::uint64_t x = x0; x < x1; ++x) row[x] += gy * gx[x - x0];
  }
}

std::vector<std::uint16_t> synthesize(std::mt19937& random) {
  std::vector<std::uint16_t> samples(kPlaneSamples * kPlanes);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::normal_distribution<double> normal(0.0, 1.0);
  std::vector<double> expected(kWidth * kHeight);
  for (std::uint64_t c = 0; c < kChannels; ++c) {
    const ChannelLook& look = kLooks[c];
    std::vector<Blob> blobs;
    for (int i = 0; i < look.count; ++i) {
      blobs.push_back(
          {unit(random) * kWidth, unit(random) * kHeight, 2.0 + unit(random) * (kPlanes - 4.0),
           look.min_sigma + unit(random) * (look.max_sigma - look.min_sigma), look.sigma_z,
           look.min_peak + unit(random) * (look.max_peak - look.min_peak)});
    }
    for (std::uint64_t z = 0; z < kPlanes; ++z) {
      std::fill(expected.begin(), expected.end(), look.background);
      for (const Blob& blob : blobs) add_blob(blob, static_cast<double>(z), expected);
      std::uint16_t* plane = samples.data() + z * kPlaneSamples + c * kWidth * kHeight;
      for (std::size_t i = 0; i < expected.size(); ++i) {
        const double counts = kDarkOffset + shot_noise(expected[i], random, normal) +
                              std::round(kReadNoise * normal(random));
        plane[i] = static_cast<std::uint16_t>(std::clamp(counts, 0.0, 65535.0));
      }
    }
  }
  return samples;
}

// The maximum over z of each pixel of each channel.
std::vector<std::uint16_t> projection(const std::vector<std::uint16_t>& samples) {
  std::vector<std::uint16_t> maximum(samples.begin(), samples.begin() + kPlaneSamples);
  for (std::uint64_t z = 1; z < kPlanes; ++z) {
    for (std::uint64_t i = 0; i < kPlaneSamples; ++i) {
      maximum[i] = std::max(maximum[i], samples[z * kPlaneSamples + i]);
    }
  }
  return maximum;
}

// The tags of the z-stack: acquisition parameters as a property tree, processing notes as JSON.
TProp acquisition_tag() {
  return tarn_import_json(R"({
    "objective": {"name": "Plan Apo 60x/1.40 Oil", "magnification": 60, "na": 1.4},
    "camera": {"model": "sCMOS 2048", "binning": 1, "gain": 1.0, "offset_counts": 100,
               "temperature_C": -10},
    "exposure_ms": [80, 120, 200],
    "excitation_nm": [405, 488, 561],
    "emission_nm": [450, 525, 610],
    "z_step_um": 0.25
  })");
}

JSON::Value processing_tag() {
  return JSON::Value::object({
      {"generator", "tarn demo"},
      {"seed", kSeed},
      {"noise",
       JSON::Value::object(
           {{"dark_offset", kDarkOffset}, {"shot", "poisson"}, {"read_sigma", kReadNoise}})},
      {"channels", JSON::Value::list({"DAPI", "GFP", "mCherry"})},
  });
}

const std::map<std::string, std::string>& demo_metadata() {
  static const std::map<std::string, std::string> entries{
      {"acquisition_software", "tarn demo"},
      {"instrument", R"({"microscope": "inverted widefield", "stage": "motorized xyz"})"},
      {"notes", "Synthetic cells for trying out the TBF tools.\nNot a real measurement.\n"},
  };
  return entries;
}

// Geometry shared by both stacks: x and y in micrometres from the stage position, the channels
// by name, and for the z-stack z in micrometres.
struct Geometry {
  std::vector<double> lengths{static_cast<double>(kWidth) * kPixelUm,
                              static_cast<double>(kHeight) * kPixelUm,
                              static_cast<double>(kChannels)};
  std::vector<double> offsets{kStageUm[0], kStageUm[1], -0.5};
  std::vector<std::string> labels{"x", "y", "c"};
  std::vector<std::uint64_t> spatial_axes{0, 1};

  explicit Geometry(bool with_z) {
    if (!with_z) return;
    lengths.push_back(static_cast<double>(kPlanes) * kPlaneStepUm);
    offsets.push_back(kStageUm[2]);
    labels.push_back("z");
    spatial_axes.push_back(3);
  }
};

Tarn::arrays::StackPosition stage_position() {
  Tarn::arrays::StackPosition position;
  position.time_point = 0;
  position.tile = 0;
  position.stage_um = {kStageUm[0], kStageUm[1], kStageUm[2]};
  return position;
}

void describe(StackInfoInterface& info) {
  const Geometry geometry(info.get_rank() == 4);
  info.set_lengths(geometry.lengths);
  info.set_offsets(geometry.offsets);
  info.set_labels(geometry.labels);
  for (const std::uint64_t axis : geometry.spatial_axes) {
    info.set_units(axis, Tarn::units::RuntimeValue(1.0, "µm"));
  }
  info.set_col_labels(2, kChannelNames);
  info.set_stack_position(stage_position());
}

struct Written {
  std::vector<std::uint16_t> samples;
  std::vector<std::uint16_t> maximum;
  Tarn::arrays::Timestamp timestamp;
};

Written write_demo(const std::string& path) {
  std::mt19937 random(kSeed);
  Written written{synthesize(random), {}, {}};
  written.maximum = projection(written.samples);
  written.timestamp = std::chrono::time_point_cast<Tarn::arrays::Timestamp::duration>(
      std::chrono::system_clock::now());

  const auto file = Tarn::create_file();
  file->open(path, Tarn::bf::DiskFile::Mode::write);
  file->set_description(
      "tarn demo: a synthetic widefield acquisition of fluorescent cells, 3 channels, 16 focal "
      "planes, and its maximum-intensity projection.");
  for (const auto& [key, value] : demo_metadata()) file->set_metadata(key, value);

  const auto stack = file->add_stack(Tarn::dt::uint16, {kWidth, kHeight, kChannels, kPlanes});
  stack->set_name("cells");
  stack->set_description("Camera counts, x fastest, then y, channel and z.");
  describe(*stack);
  stack->set_timestamp(written.timestamp);
  stack->set_tag("acquisition", acquisition_tag());
  stack->set_tag("processing", processing_tag());
  // One focal plane (all channels) per call, as a camera would deliver them.
  for (std::uint64_t z = 0; z < kPlanes; ++z) {
    stack->write(
        std::span<const std::uint16_t>(written.samples).subspan(z * kPlaneSamples, kPlaneSamples));
  }
  stack->commit();

  // Stored as single, written from the 16-bit maxima: the stack converts.
  const auto mip = file->add_stack(Tarn::dt::single, {kWidth, kHeight, kChannels});
  mip->set_name("max projection");
  mip->set_description("Maximum over z of each pixel of each channel.");
  describe(*mip);
  mip->write(std::span<const std::uint16_t>(written.maximum));
  mip->commit();
  file->close();
  return written;
}

void expect(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(fmt::format("Demo check failed: {} differs.", what));
}

void check_description(const StackImp& stack, const std::string& which) {
  const Geometry geometry(stack.get_rank() == 4);
  expect(stack.lengths() == geometry.lengths, which + " lengths");
  expect(stack.offsets() == geometry.offsets, which + " offsets");
  expect(stack.labels() == geometry.labels, which + " labels");
  for (const std::uint64_t axis : geometry.spatial_axes) {
    expect(stack.units(axis) == Tarn::units::RuntimeValue(1.0, "µm"), which + " units");
  }
  expect(stack.col_labels(2) == kChannelNames, which + " channel names");
  expect(stack.stack_position() == stage_position(), which + " stack position");
}

void check_demo(const std::string& path, const Written& written) {
  const auto file = Tarn::open_file(path, Tarn::bf::DiskFile::Mode::read);
  expect(file->format_version() == 2, "format version");
  expect(file->description().starts_with("tarn demo: "), "file description");
  for (const auto& [key, value] : demo_metadata()) {
    const auto entry = file->metadata().find(key);
    expect(entry != file->metadata().end() && entry->second == value, "metadata '" + key + "'");
  }
  expect(file->number_of_stacks() == 2, "number of stacks");

  const auto stack = file->stack(0);
  expect(stack->type() == Tarn::dt::uint16, "z-stack type");
  expect(stack->shape() == std::vector<std::uint64_t>{kWidth, kHeight, kChannels, kPlanes},
         "z-stack shape");
  expect(stack->name() == "cells", "z-stack name");
  check_description(*stack, "z-stack");
  expect(stack->timestamp() == written.timestamp, "z-stack timestamp");
  const auto* acquisition = std::get_if<TProp>(&stack->tag("acquisition"));
  expect(acquisition != nullptr && *acquisition == acquisition_tag(), "acquisition tag");
  const auto* processing = std::get_if<JSON::Value>(&stack->tag("processing"));
  expect(processing != nullptr && *processing == processing_tag(), "processing tag");

  std::vector<std::uint16_t> samples(written.samples.size());
  expect(stack->read(0, std::span<std::uint16_t>(samples)) == StackImp::kNpos, "z-stack end");
  expect(samples == written.samples, "z-stack data");
  // One plane out of the middle, converted to double on the way.
  const std::uint64_t z = kPlanes / 2;
  std::vector<double> plane(kPlaneSamples);
  stack->read(z * kPlaneSamples, std::span<double>(plane));
  expect(std::equal(plane.begin(), plane.end(), written.samples.begin() + z * kPlaneSamples),
         "z-stack plane read as double");

  const auto mip = file->stack(1);
  expect(mip->type() == Tarn::dt::single, "projection type");
  expect(mip->shape() == std::vector<std::uint64_t>{kWidth, kHeight, kChannels},
         "projection shape");
  expect(mip->name() == "max projection", "projection name");
  check_description(*mip, "projection");
  std::vector<float> maximum(kPlaneSamples);
  mip->read(0, std::span<float>(maximum));
  expect(std::equal(maximum.begin(), maximum.end(), written.maximum.begin()), "projection data");
}

void run_demo(const DemoOptions& options) {
  const Written written = write_demo(options.out);
  check_demo(options.out, written);
  const std::string head = fmt::format(
      "Wrote {} and read it back: every sample and every description matches.\n\n", options.out);
  write_stdout(head.data(), head.size());
  print_info(options.out, false);
}

}  // namespace

void add_demo_command(CLI::App& app) {
  auto options = std::make_shared<DemoOptions>();
  CLI::App* command = app.add_subcommand(
      "demo",
      "Write a sample acquisition (a synthetic 3-channel z-stack of 16-bit images and its "
      "maximum-intensity projection), read it back, check it and print its info.");
  command->add_option("OUT", options->out, "The file to write (created or replaced)")
      ->capture_default_str();
  command->callback([options] { run_demo(*options); });
}

}  // namespace tarn

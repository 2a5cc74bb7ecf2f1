// What tarn info shows of the OME description of a file's stacks: the name and the physical
// pixel size of the image that describes each stack, or why the description cannot be read.

#include <fmt/format.h>

#include <optional>
#include <string>
#include <vector>

#include "tarnio/json/read_write.h"
#include "tarnio/ome/quantity.h"
#include "tarnio/ome/root.h"
#include "tarnio/stack_factory/describe_stack.h"
#include "tools/tarn/commands.h"

namespace tarn {

namespace {

struct StackImage {
  std::string name;
  // Per axis X, Y, Z the pixel size with its unit, as far as given.
  std::vector<std::string> pixel_size;
};

// The images of the file's stacks (nothing where a stack has none), or the error of a
// description that cannot be read.
struct StackImages {
  std::vector<std::optional<StackImage>> images;
  std::optional<std::string> error;
};

StackImages stack_images(Tarn::bf::FileInterface& file) {
  StackImages result;
  result.images.resize(file.number_of_stacks());
  try {
    const auto images = Tarn::stack_images(file.get_OME_root(), file.number_of_stacks());
    for (std::size_t i = 0; i < images.size(); ++i) {
      if (images[i] == nullptr) continue;
      StackImage& image = result.images[i].emplace();
      if (const JSON::Value* name = images[i]->find_member("Name");
          name != nullptr && name->is_string()) {
        image.name = name->get_string();
      }
      const OME::Image::Pixels* pixels = images[i]->pixels().get();
      for (const char* axis : {"PhysicalSizeX", "PhysicalSizeY", "PhysicalSizeZ"}) {
        const auto size = pixels != nullptr ? OME::quantity(*pixels, "Pixels", axis) : std::nullopt;
        if (!size) break;
        image.pixel_size.push_back(size->to_string());
      }
    }
  } catch (const std::invalid_argument& error) {
    result.error = error.what();
  }
  return result;
}

}  // namespace

std::string ome_lines(Tarn::bf::FileInterface& file) {
  const StackImages found = stack_images(file);
  if (found.error) return fmt::format("\nOME metadata unreadable: {}\n", *found.error);
  std::string out;
  for (std::size_t i = 0; i < found.images.size(); ++i) {
    const auto& image = found.images[i];
    if (!image || (image->name.empty() && image->pixel_size.empty())) continue;
    if (out.empty()) out = "\n";
    // Quoted and escaped as JSON text, so that a row stays one line.
    out += fmt::format("stack {} is image {}", i, JSON::write(JSON::Value(image->name)));
    if (!image->pixel_size.empty()) {
      out += fmt::format(", pixel size {}", fmt::join(image->pixel_size, " x "));
    }
    out += '\n';
  }
  return out;
}

void add_ome_json(Tarn::bf::FileInterface& file, JSON::Value& info) {
  const StackImages found = stack_images(file);
  if (found.error) info.set("ome_error", *found.error);
  JSON::Value& stacks = info.at("stacks");
  for (std::size_t i = 0; i < found.images.size() && i < stacks.size(); ++i) {
    const auto& image = found.images[i];
    if (!image) continue;
    JSON::Value sizes = JSON::Value::list();
    for (const std::string& size : image->pixel_size) sizes.push_back(size);
    stacks[i].set("image",
                  JSON::Value::object({{"name", image->name}, {"pixel_size", std::move(sizes)}}));
  }
}

}  // namespace tarn

#include "tarnio/archive/archive.h"

#include <cmath>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include "tarnio/archive/internal/blob_format.h"
#include "tarnio/json/read_write.h"
#include "tarnio/stack_factory/create_stack.h"

namespace Kalix::Archive {

namespace fs = std::filesystem;

std::string read_did(const fs::path& directory) {
  const fs::path file = directory / "zarr" / "klx" / ".zattrs";
  // A tree without attributes (an empty one, say) still packs; it has no data identifier.
  if (!fs::exists(file)) return {};
  const JSON::Value attributes = JSON::read_file(file);
  const JSON::Value* did = attributes.find("did");
  return did != nullptr ? std::string(did->get_string()) : std::string();
}

std::uint64_t stack_side(std::uint64_t blob_size) {
  auto side = static_cast<std::uint64_t>(std::sqrt(static_cast<double>(blob_size)));
  // The double may round either way for large sizes; settle on the exact integer root,
  // comparing by division so that no square overflows.
  while (side > 0 && side > blob_size / side) --side;
  while (side + 1 <= blob_size / (side + 1)) ++side;
  return side + 1;
}

JSON::Value describe(const std::string& aid, const std::string& did, const std::string& label) {
  return JSON::Value::object(
      {{"aid", aid}, {"did", did}, {"label", label}, {"type", "data"}, {"sid", did}});
}

std::unique_ptr<Tarn::arrays::StackInterface> pack(const fs::path& directory,
                                                   const std::string& label, std::string aid) {
  const std::uint64_t size = Blob::get_fs_size(directory);
  if (size == 0) return nullptr;
  const std::uint64_t side = stack_side(size);
  auto stack = Tarn::create_stack(Tarn::dt::uint8, {side, side, 1, 1});
  Blob::fs_to_buffer(Blob::Header(), stack->bytes().data(), size, directory);
  stack->set_tag(kTag, describe(aid, read_did(directory), label));
  return stack;
}

Blob::Header unpack(std::shared_ptr<const Tarn::arrays::StackInterface> stack,
                    const fs::path& directory) {
  if (stack == nullptr || stack->bytes().empty()) {
    throw std::runtime_error("cannot unpack empty stack");
  }
  const std::span<const std::byte> data = stack->bytes();
  if (data.size() < Blob::internal::kSignatureSize ||
      std::memcmp(data.data(), Blob::internal::kSignature, Blob::internal::kSignatureSize) != 0) {
    throw std::runtime_error("signature mismatch");
  }
  return Blob::buffer_to_fs(data.data(), data.size(), directory);
}

namespace {

// The first of `keys` that `description` holds as a string; empty when none.
std::string first_string(const JSON::Value& description, std::initializer_list<const char*> keys) {
  for (const char* key : keys) {
    const JSON::Value* value = description.find(key);
    if (value != nullptr && value->is_string()) return std::string(value->get_string());
  }
  return {};
}

}  // namespace

std::string infer_data_aid(const JSON::Value& description) {
  return first_string(description, {"aid", "did", "sid"});
}

std::string infer_liveview_sid(const JSON::Value& description) {
  return first_string(description, {"sid", "did", "aid"});
}

}  // namespace Kalix::Archive

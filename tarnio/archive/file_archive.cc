#include "tarnio/archive/file_archive.h"

#include <cstdint>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tarnio/archive/archive.h"
#include "tarnio/errors/internal/raise.h"
#include "tarnio/stack_factory/create_stack.h"

namespace Kalix::Archive {

namespace {

// No deflate stream inflates by more than a factor of about 1032, so a stack that claims more
// plain bytes than this allows for its stored ones is damaged.
constexpr std::uint64_t kMaxInflation = 1100;
constexpr std::uint64_t kAlwaysAllowed = std::uint64_t{1} << 20;

}  // namespace

std::shared_ptr<Tarn::bf::StackImp> pack_to_file(
    Tarn::bf::FileInterface& file, const std::filesystem::path& directory, const std::string& label,
    std::string aid, const std::function<void(Tarn::bf::StackImp&)>& prepare) {
  const std::uint64_t size = Blob::get_fs_size(directory);
  const std::uint64_t side = stack_side(size);
  auto stack = file.add_stack(Tarn::dt::uint8, {side, side, 1, 1});
  stack->set_tag(kTag, describe(aid, read_did(directory), label));
  if (prepare) prepare(*stack);
  Blob::fs_to_sink(Blob::Header(), directory, size, [&](std::span<const std::byte> piece) {
    stack->write(piece.data(), piece.size());
  });
  // The square's tail behind the blob: at most 2 * side + 1 zero bytes.
  const std::vector<std::byte> tail(side * side - size);
  if (!tail.empty()) stack->write(tail.data(), tail.size());
  stack->commit();
  return stack;
}

Blob::Header unpack_from_file(Tarn::bf::StackImp& stack, const std::filesystem::path& directory) {
  const std::uint64_t sample = tarn_dt_get_size(stack.type());
  if (sample == 0) throw std::runtime_error("Elements without a size hold no archive.");
  std::uint64_t bytes = 0;
  if (__builtin_mul_overflow(stack.number_of_elements(), sample, &bytes) ||
      bytes > stack.data_length() * kMaxInflation + kAlwaysAllowed) {
    Tarn::errors::internal::throw_tarn("The stack claims more data than its file holds.");
  }
  std::shared_ptr<Tarn::arrays::StackInterface> data = Tarn::create_stack(Tarn::dt::uint8, {bytes});
  if (bytes > 0) stack.read(0, stack.number_of_elements(), data->bytes().data());
  return unpack(std::move(data), directory);
}

}  // namespace Kalix::Archive

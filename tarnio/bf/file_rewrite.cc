#include "tarnio/bf/file_rewrite.h"

#include <algorithm>
#include <memory>
#include <span>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/shape.h"
#include "tarnio/bf/file_imp.h"
#include "tarnio/bf/internal/stack_info_json.h"

namespace Tarn::bf {

namespace {

// Samples moved per read and write while copying a stack.
constexpr std::uint64_t kCopyBytes = std::uint64_t{16} << 20;

void refuse_same_file(const std::filesystem::path& in, const std::filesystem::path& out) {
  std::error_code error;
  if (std::filesystem::equivalent(in, out, error)) {
    throw std::invalid_argument("The rewritten file must not replace its source.");
  }
}

// The shape `stack` is copied with: all of it, or for a stack read while it was being written,
// the whole slices of what its writer committed.
std::vector<std::uint64_t> copied_shape(const StackImp& stack) {
  std::vector<std::uint64_t> shape = stack.shape();
  if (!stack.is_unfinished() || shape.empty()) return shape;
  const std::uint64_t slice = arrays::number_of_elements(std::span(shape).first(shape.size() - 1));
  shape.back() = slice == 0 ? 0 : stack.samples_available() / slice;
  return shape;
}

void copy_stack(StackImp& from, FileInterface& to, const RewriteOptions& options) {
  const std::vector<std::uint64_t> shape = copied_shape(from);
  const std::shared_ptr<StackImp> stack = to.add_stack(from.type(), shape);
  stack->set_name(from.name());
  stack->set_description(from.description());
  std::vector<double> lengths = from.lengths();
  if (!shape.empty() && shape.back() != from.shape().back() && from.shape().back() != 0) {
    // A stack cut short keeps its pixel pitch.
    lengths.back() *= static_cast<double>(shape.back()) / static_cast<double>(from.shape().back());
  }
  stack->set_lengths(lengths);
  stack->set_offsets(from.offsets());
  // A stack read while being written has no record yet: its info is the header's.
  if (!from.is_unfinished()) {
    internal::apply_stack_info_json(internal::stack_info_to_json(from), *stack);
  }
  const StackCompression compression =
      options.compression.value_or(StackCompression{from.compression(), from.compression_level()});
  stack->set_compression(compression.type, compression.level);

  const std::uint64_t samples = stack->number_of_elements();
  if (!from.has_data() || samples == 0) {
    stack->set_no_data(true);
    stack->commit();
    return;
  }
  const std::size_t element_size = tarn_dt_get_size(from.type());
  const std::uint64_t per_piece = std::max<std::uint64_t>(1, kCopyBytes / element_size);
  std::vector<std::byte> piece(std::min(per_piece, samples) * element_size);
  for (std::uint64_t done = 0; done < samples;) {
    const std::uint64_t n = std::min(per_piece, samples - done);
    from.read(done, n, piece.data());
    stack->write(piece.data(), n * element_size);
    done += n;
  }
  stack->commit();
}

// Copies the description, the metadata entries and every stack of `from` into a new file at
// `out`; returns the number of stacks copied.
std::size_t copy_file(FileInterface& from, const std::filesystem::path& out,
                      const RewriteOptions& options) {
  auto to = Tarn::create_file();
  to->open(out, DiskFile::Mode::write);
  to->set_threading_support(options.threading);
  to->set_description(from.description());
  for (const auto& [key, value] : from.metadata()) to->set_metadata(key, value);
  const std::size_t stacks = from.number_of_stacks();
  for (std::size_t i = 0; i < stacks; ++i) copy_stack(*from.stack(i), *to, options);
  to->close();
  return stacks;
}

}  // namespace

}  // namespace Tarn::bf

namespace Tarn {

bf::RecoveryResult recover_file(const std::filesystem::path& damaged,
                                const std::filesystem::path& out,
                                const bf::RewriteOptions& options) {
  bf::refuse_same_file(damaged, out);
  auto from = std::make_shared<bf::FileImp>();
  from->set_threading_support(options.threading);
  from->open_unfinished(damaged);
  bf::RecoveryResult result;
  for (std::size_t i = 0; i < from->number_of_stacks(); ++i) {
    result.partial_stack = result.partial_stack || from->stack(i)->is_unfinished();
  }
  result.stacks = bf::copy_file(*from, out, options);
  return result;
}

void compact_file(const std::filesystem::path& in, const std::filesystem::path& out,
                  const bf::RewriteOptions& options) {
  bf::refuse_same_file(in, out);
  auto from = std::make_shared<bf::FileImp>();
  from->set_threading_support(options.threading);
  from->open(in, bf::DiskFile::Mode::read);
  bf::copy_file(*from, out, options);
}

}  // namespace Tarn

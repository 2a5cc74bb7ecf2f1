#include "tarnio/bf/stack_imp.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnio/arrays/shape.h"
#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/chunked_segment.h"
#include "tarnio/bf/internal/flush_index.h"
#include "tarnio/bf/internal/plain_segment.h"
#include "tarnio/bf/internal/positioning.h"
#include "tarnio/bf/internal/stack_header.h"
#include "tarnio/bf/internal/stack_info_json.h"
#include "tarnio/bf/internal/stack_record.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/bf/internal/zlib_segment.h"
#include "tarnio/bf/stack_host.h"
#include "tarnio/errors/internal/raise.h"
#include "tarnio/json/read_write.h"

// Which sentence a refused commit() gets:
//   "Stack is already complete. Invalid call to commit()."       the stack is committed
//   "Stack not ready to be committed. Meta-information missing."  the stack failed (a write was
//        cancelled or hit a disk error: what is on disk is not a complete stack)
//   "Stack data type not set. Cannot commit stack to file."       the element type is not set
//        or has no size
//   "Not enough samples written."                                  the stack holds data and not
//        all samples arrived, or none did

namespace Tarn::bf {

namespace {

using errors::internal::throw_tarn;
using internal::kStackHeaderSize;

// The most one write() or read() moves between the caller's buffer and the disk at once, and so
// the most data between two progress calls.
constexpr std::uint64_t kDirectPiece = std::uint64_t{64} << 20;
// The bounce buffer of a converting write() or read() never exceeds this, whatever block size
// the host asks for, so that neither needs more than 16 MiB beyond the caller's buffer.
constexpr std::uint64_t kMaxBounceBytes = std::uint64_t{8} << 20;
constexpr std::uint64_t kMaxStoredSize = std::numeric_limits<std::uint32_t>::max();
// The smallest flush block a chunk-wise compressed stack picks by itself: below it, the joins
// between blocks cost more than the threads gain.
constexpr std::uint64_t kMinChunkFlushBlock = std::uint64_t{256} << 10;

bool is_complex(DataType type) { return (type & Tarn::dt::complex_flag) != 0; }

bool in_type_table(DataType type) {
  const std::span<const DataType> known = arrays::all_data_types();
  return std::ranges::find(known, type) != known.end();
}

enum class Direction { write, read };

// The buffer type a write() or read() works in (none: the stack's own), checked against the
// stack's type: split imaginary parts need a real buffer and a complex stack, and the
// converters must have a path in the direction the data moves. The conversion message names
// the stored type first and the requested one second, whichever way the data moves.
DataType checked_buffer_type(DataType stack_type, DataType buffer_type, bool split,
                             Direction direction) {
  if (buffer_type == Tarn::dt::none) buffer_type = stack_type;
  const bool writing = direction == Direction::write;
  if (split) {
    if (is_complex(buffer_type)) {
      throw std::runtime_error(writing
                                   ? "Imaginary block given but buffer is already complex."
                                   : "Imaginary buffer passed but buffer type is already complex.");
    }
    if (!is_complex(stack_type)) {
      throw std::runtime_error(writing ? "Imaginary block given but stack is not complex."
                                       : "Imaginary buffer passed but stack is not complex.");
    }
  }
  if (buffer_type == stack_type && !split) return buffer_type;
  // A zero-count call tells whether the converters have the pair, with the imaginary pointer
  // standing for the split buffer on its side.
  const int supported = writing ? tarn_dt_convert(buffer_type, stack_type, nullptr, nullptr, 0,
                                                  split ? &buffer_type : nullptr, nullptr)
                                : tarn_dt_convert(stack_type, buffer_type, nullptr, nullptr, 0,
                                                  nullptr, split ? &buffer_type : nullptr);
  if (supported != 0) {
    throw std::runtime_error(fmt::format(
        "Invalid on-the-fly conversion from '{}' to '{}'.", tarn_dt_get_name(stack_type),
        tarn_dt_get_name(split ? buffer_type | Tarn::dt::complex_flag : buffer_type)));
  }
  return buffer_type;
}

// Elements per piece of a converting transfer: what fits the bounce buffer, at least one.
std::uint64_t bounce_elements(std::uint64_t block_size, std::size_t element_size) {
  return std::max<std::uint64_t>(1, std::min(block_size, kMaxBounceBytes) / element_size);
}

// Ends the host's claim on `stack` after a failure; errors of the host are dropped, since the
// error that made the stack fail is the one its caller needs to see.
void end_quietly(StackHost* host, StackImp& stack) noexcept {
  if (host == nullptr) return;
  try {
    host->end_stack(stack);
  } catch (...) {
  }
}

// Throws unless the file position is `expected`, the end of the data written so far: someone
// moved it between two calls, and writing on would put data where it does not belong.
void check_position(DiskFileAccess& file, std::uint64_t expected) {
  if (file.tell() != expected) {
    throw std::runtime_error("File pointer at invalid position encountered.");
  }
}

// The header, the name and the description of `stack` as they go to disk in one piece, with
// the data length and the next-stack position 0. Throws std::invalid_argument for a layout the
// header cannot hold.
std::string header_block(const StackImp& stack, bool no_data) {
  const std::vector<std::uint64_t>& sizes = stack.shape();
  if (sizes.size() > internal::kMaxRank) {
    throw std::invalid_argument(fmt::format("A stack has at most {} dimensions, not {}.",
                                            internal::kMaxRank, sizes.size()));
  }
  for (std::uint64_t size : sizes) {
    if (size > kMaxStoredSize) {
      throw std::invalid_argument(
          fmt::format("Dimension size {} is too large: a stack stores sizes below 2^32.", size));
    }
  }
  if (stack.name().size() > kMaxStoredSize || stack.description().size() > kMaxStoredSize) {
    throw std::invalid_argument("Stack name or description too long: at most 2^32 - 1 bytes.");
  }

  internal::StackHeader header;
  header.rank = static_cast<std::uint32_t>(sizes.size());
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    // A growing last dimension has no size until commit.
    const bool growing = stack.has_variable_last_dimension() && i + 1 == sizes.size();
    header.sizes[i] = growing ? 0 : static_cast<std::uint32_t>(sizes[i]);
    header.lengths[i] = stack.lengths()[i];
    header.offsets[i] = stack.offsets()[i];
  }
  header.type = stack.type();
  header.compression = static_cast<std::uint32_t>(stack.compression());
  header.compression_level = stack.compression_level();
  header.name_length = static_cast<std::uint32_t>(stack.name().size());
  header.description_length = static_cast<std::uint32_t>(stack.description().size());
  header.data_flag = no_data ? 0 : 1;
  const internal::StackHeaderBytes encoded = internal::encode_stack_header(header);
  std::string block(reinterpret_cast<const char*>(encoded.data()), encoded.size());
  block += stack.name();
  block += stack.description();
  return block;
}

// Writes the block at the file position, which begin_stack left at `position`, and links it
// into the file's chain.
void put_header(StackHost& file, std::uint64_t position, const std::string& block) {
  check_position(file.access(), position);
  file.access().write(block.data(), block.size());
  file.count_written(block.size());
  file.link_stack(position);
}

}  // namespace

StackImp::StackImp(StackHost& host, DataType type, std::span<const std::uint64_t> sizes)
    : arrays::StackInfoImp(type, sizes),
      host_(&host),
      format_version_(internal::kStackFormatVersion),
      minimum_reader_version_(internal::kReaderVersion) {}

StackImp::~StackImp() = default;

StackHost& StackImp::host() const {
  if (host_ == nullptr) {
    throw std::runtime_error("Cannot access File_Stack, file has been closed.");
  }
  return *host_;
}

void StackImp::begin_writing(StackHost& file) {
  const std::string block = header_block(*this, no_data_);
  const std::uint64_t position = file.begin_stack(*this);
  try {
    put_header(file, position, block);
  } catch (...) {
    fail();
    throw;
  }
  position_ = position;
  lock();
  state_ = State::writing;
}

void StackImp::fail() noexcept {
  state_ = State::failed;
  end_quietly(host_, *this);
}

bool StackImp::has_data() const {
  return !no_data_ && (variable_ ? slice_elements() > 0 : number_of_elements() > 0);
}

std::uint64_t StackImp::slice_elements() const {
  const std::vector<std::uint64_t>& sizes = shape();
  if (sizes.empty()) return 1;
  return arrays::number_of_elements(std::span(sizes).first(sizes.size() - 1));
}

std::uint64_t StackImp::samples_left() const {
  if (!variable_) return number_of_elements() - samples_written_;
  return std::numeric_limits<std::uint64_t>::max() - samples_written_;
}

std::uint64_t StackImp::flush_block_size() const {
  return flush_block_size_ != 0 ? flush_block_size_ : (host_ != nullptr ? host_->block_size() : 0);
}

std::unique_ptr<internal::DataSegment> StackImp::new_segment(StackHost& file) const {
  std::optional<internal::ZlibSettings> zlib;
  if (compression_ == Compression::zlib) {
    zlib = internal::ZlibSettings{compression_level_, flush_block_size(),
                                  file.access().threading_support()};
    // Each chunk is a stream of its own, whose blocks its threads share; by default a chunk
    // gets a block per thread, so that a chunk smaller than threads x blocks keeps them busy.
    if (is_chunk_wise() && flush_block_size_ == 0) {
      const std::uint64_t chunk_bytes = chunk_samples_ * tarn_dt_get_size(type());
      const std::uint64_t threads = std::max<std::uint64_t>(zlib->threading.thread_count, 1);
      const std::uint64_t per_thread = (chunk_bytes + threads - 1) / threads;
      zlib->flush_block_size =
          std::min(flush_block_size(), std::max(per_thread, kMinChunkFlushBlock));
    }
  }
  if (is_chunk_wise()) {
    return std::make_unique<internal::ChunkedSegment>(
        file.access(), data_position(),
        internal::ChunkLayout{tarn_dt_get_size(type()), chunk_samples_, zlib});
  }
  if (zlib) return std::make_unique<internal::ZlibSegment>(file.access(), data_position(), *zlib);
  return std::make_unique<internal::PlainSegment>(file.access(), data_position());
}

std::uint64_t StackImp::data_position() const {
  if (state_ == State::describing) return 0;
  return position_ + kStackHeaderSize + name().size() + description().size();
}

void StackImp::set_type(DataType type) {
  host();
  if (state_ != State::describing || this->type() != Tarn::dt::none) {
    throw std::runtime_error(fmt::format("The type is already set to '{}'.", this->type()));
  }
  if (!in_type_table(type)) throw std::invalid_argument("Unknown type of elements.");
  set_data_type(type);
}

void StackImp::set_compression(Compression type, std::uint32_t level) {
  host();
  if (static_cast<std::uint32_t>(type) > 1) {
    throw std::runtime_error("Invalid compression type specified.");
  }
  if (state_ != State::describing) throw std::runtime_error("Cannot change compression mode.");
  if (level > 9) throw std::invalid_argument("Invalid compression level specified.");
  compression_ = type;
  compression_level_ = level;
}

void StackImp::set_flush_block_size(std::uint64_t bytes) {
  host();
  if (state_ != State::describing) {
    throw std::runtime_error("Flush block size can only be set before starting to write.");
  }
  if (bytes == 0) throw std::invalid_argument("The flush block size must not be 0.");
  flush_block_size_ = bytes;
}

void StackImp::require_write_flags_open() const {
  host();
  if (state_ != State::describing) {
    throw std::runtime_error("Invalid attempt to change write flags.");
  }
}

void StackImp::set_no_data(bool no_data) {
  require_write_flags_open();
  no_data_ = no_data;
}

void StackImp::set_chunk_wise(bool chunk_wise, std::uint64_t chunk_samples) {
  require_write_flags_open();
  if (shape().empty()) throw std::invalid_argument("A stack of rank 0 has no chunks.");
  const std::uint64_t slice = std::max<std::uint64_t>(slice_elements(), 1);
  if (chunk_wise && chunk_samples % slice != 0) {
    throw std::runtime_error("Custom varsize chunk size must be multiple of default chunk size");
  }
  chunk_samples_ = !chunk_wise ? 0 : chunk_samples != 0 ? chunk_samples : slice;
  // A growing stack is always written in chunks.
  if (!chunk_wise && variable_) chunk_samples_ = slice;
}

void StackImp::set_variable_last_dimension(bool variable) {
  require_write_flags_open();
  if (shape().empty()) throw std::invalid_argument("A stack of rank 0 has no last dimension.");
  variable_ = variable;
  if (variable_ && !is_chunk_wise()) chunk_samples_ = std::max<std::uint64_t>(slice_elements(), 1);
}

void StackImp::reserve_space() {
  StackHost& file = host();
  if (state_ == State::committed) {
    throw std::runtime_error("Cannot reserve space: Stack is already completely written to disk.");
  }
  if (state_ != State::describing) {
    throw std::runtime_error("Cannot reserve space: Stack is in an invalid state.");
  }
  if (variable_) {
    throw std::runtime_error(
        "Cannot reserve space: The last dimension of the stack is variable sized.");
  }
  if (!has_data())
    throw std::runtime_error("Cannot reserve space: Stack was created as data less.");
  const std::size_t element_size = tarn_dt_get_size(type());
  if (element_size == 0) {
    throw std::runtime_error(
        "Cannot reserve space: The data type of the stack is not (yet) determined.");
  }
  if (is_chunk_wise()) {
    throw std::runtime_error("Invalid attempt to reserve space: Stack is written chunk wise.");
  }
  const std::uint64_t elements = number_of_elements();
  if (elements > std::numeric_limits<std::uint64_t>::max() / element_size) {
    throw std::invalid_argument("The product exceeds the maximum size.");
  }

  begin_writing(file);
  try {
    // One byte at the end of the reserved space makes the file that long; everything before
    // it stays a hole until the data arrives.
    DiskFileAccess& access = file.access();
    const std::uint64_t reserved = elements * element_size;
    file.mark_sparse();
    internal::seek_exactly(access, data_position() + reserved - 1);
    const std::byte zero{0};
    access.write(&zero, 1);
    internal::seek_exactly(access, data_position());
    segment_ = new_segment(file);
  } catch (...) {
    fail();
    throw;
  }
}

void StackImp::set_progress_callback(ProgressCallback callback) { progress_ = std::move(callback); }

void StackImp::write(const void* data, std::uint64_t bytes, DataType buffer_type,
                     const void* imag) {
  StackHost& file = host();
  switch (state_) {
    case State::committed:
      throw std::runtime_error("Stack is already complete. Invalid call to write().");
    case State::failed:
      throw std::runtime_error("Stack failed or was cancelled. Invalid call to write().");
    case State::describing:
    case State::writing:
      break;
  }
  if (!has_data()) throw std::runtime_error("Trying to write to empty stack.");
  if (samples_left() == 0) {
    throw std::runtime_error("Stack is already complete. Invalid call to write().");
  }
  const DataType stack_type = type();
  const std::size_t element_size = tarn_dt_get_size(stack_type);
  if (element_size == 0) {
    throw std::runtime_error("Stack data type not set. Cannot write data to the stack.");
  }

  buffer_type = checked_buffer_type(stack_type, buffer_type, imag != nullptr, Direction::write);
  const bool convert = buffer_type != stack_type || imag != nullptr;
  const std::size_t buffer_element_size = tarn_dt_get_size(buffer_type);
  if (bytes % buffer_element_size != 0) throw std::runtime_error("Not on sample boundary.");
  const std::uint64_t samples = bytes / buffer_element_size;
  if (samples > samples_left()) {
    throw std::runtime_error("Trying to write more samples than the stack is long.");
  }
  if (samples > 0 && data == nullptr) throw std::invalid_argument("Null buffer passed to write().");

  if (state_ == State::describing) {
    begin_writing(file);
    try {
      segment_ = new_segment(file);
    } catch (...) {
      fail();
      throw;
    }
  }
  check_position(file.access(), segment_->end_position());

  // A growing stack reports the bytes written so far as the total.
  const std::uint64_t stack_bytes =
      (variable_ ? samples_written_ + samples : number_of_elements()) * element_size;
  const auto report = [&] {
    if (progress_ && !progress_(samples_written_ * element_size, stack_bytes)) {
      throw std::runtime_error("Cancelled by user.");
    }
  };
  const auto* in = static_cast<const std::byte*>(data);
  const auto* in_imag = static_cast<const std::byte*>(imag);
  try {
    if (!convert) {
      const std::uint64_t piece = kDirectPiece / element_size * element_size;
      for (std::uint64_t done = 0; done < bytes;) {
        const std::uint64_t n = std::min(piece, bytes - done);
        segment_->append({in + done, n});
        file.count_written(n);
        samples_written_ += n / element_size;
        done += n;
        report();
      }
    } else {
      const std::uint64_t per_piece =
          std::min(bounce_elements(file.block_size(), element_size), samples);
      std::vector<std::byte> bounce(per_piece * element_size);
      for (std::uint64_t done = 0; done < samples;) {
        const std::uint64_t n = std::min(per_piece, samples - done);
        const std::uint64_t at = done * buffer_element_size;
        tarn_dt_convert(buffer_type, stack_type, in + at, bounce.data(), n,
                        in_imag != nullptr ? in_imag + at : nullptr, nullptr);
        segment_->append({bounce.data(), n * element_size});
        file.count_written(n * element_size);
        samples_written_ += n;
        done += n;
        report();
      }
    }
  } catch (...) {
    // A cancel, a disk error or a throwing callback: what is on disk is no complete stack.
    fail();
    throw;
  }
}

void StackImp::commit() {
  StackHost& file = host();
  switch (state_) {
    case State::committed:
      throw std::runtime_error("Stack is already complete. Invalid call to commit().");
    case State::failed:
      throw std::runtime_error("Stack not ready to be committed. Meta-information missing.");
    case State::describing:
      if (tarn_dt_get_size(type()) == 0) {
        throw std::runtime_error("Stack data type not set. Cannot commit stack to file.");
      }
      if (has_data()) throw std::runtime_error("Not enough samples written.");
      break;
    case State::writing:
      if (variable_ ? samples_written_ == 0 || samples_written_ % slice_elements() != 0
                    : samples_written_ < number_of_elements()) {
        throw std::runtime_error("Not enough samples written.");
      }
      break;
  }
  // A growing stack is as long as the slices written; the record below describes that shape.
  const std::uint64_t last_size = variable_ ? samples_written_ / slice_elements() : 0;
  if (variable_) {
    if (last_size > kMaxStoredSize) {
      throw std::runtime_error("Too many slices written: a stack stores sizes below 2^32.");
    }
    unlock();
    resize_last_axis(last_size);
    lock();
  }

  // What can be refused is refused before any byte moves: the stack info as JSON (a tag that
  // the property JSON form cannot hold), the layout, the position of the file.
  internal::StackRecord record;
  std::string version(4, '\0');
  internal::put_u32({reinterpret_cast<std::byte*>(version.data()), version.size()}, 0,
                    internal::kReaderVersion);
  record.add(internal::RecordKey::minimum_reader_version, std::move(version));
  record.add(internal::RecordKey::stack_info, JSON::write(internal::stack_info_to_json(*this)));

  // A stack without data: its header and its record are all there is.
  if (state_ == State::describing) begin_writing(file);
  if (segment_ != nullptr) check_position(file.access(), segment_->end_position());

  try {
    DiskFileAccess& access = file.access();
    std::uint64_t data_length = 0;
    if (segment_ != nullptr) {
      data_length = segment_->finish();
      for (auto& [key, value] : segment_->record_entries()) record.add(key, std::move(value));
    }
    if (variable_) {
      std::array<std::byte, 4> size{};
      internal::put_u32(size, 0, static_cast<std::uint32_t>(last_size));
      const std::uint64_t here = access.tell();
      internal::seek_exactly(access, position_ + internal::kSizesOffset + 4 * (shape().size() - 1));
      access.write(size.data(), size.size());
      internal::seek_exactly(access, here);
    }
    const std::string encoded = internal::encode_stack_record(record);
    access.write(encoded.data(), encoded.size());
    file.count_written(encoded.size());
    // The data length marks the stack complete, so it is patched last.
    internal::patch_u64(access, position_ + internal::kDataLengthOffset, data_length);
    file.count_written(sizeof(std::uint64_t));
    data_length_ = data_length;
  } catch (...) {
    fail();
    throw;
  }
  state_ = State::committed;
  file.end_stack(*this);
}

std::shared_ptr<StackImp> StackImp::read_from(StackHost& host, std::uint64_t position) {
  return read_stack(host, position, false);
}

std::shared_ptr<StackImp> StackImp::read_unfinished_from(StackHost& host, std::uint64_t position) {
  return read_stack(host, position, true);
}

std::shared_ptr<StackImp> StackImp::read_stack(StackHost& host, std::uint64_t position,
                                               bool unfinished) {
  DiskFileAccess& file = host.access();
  const std::uint64_t size = internal::file_size(file);
  internal::seek_exactly(file, position);
  internal::StackHeaderBytes bytes{};
  file.read(bytes.data(), bytes.size());
  const internal::StackHeader header = internal::decode_stack_header(bytes);

  std::vector<std::uint64_t> sizes(header.sizes.begin(), header.sizes.begin() + header.rank);
  std::uint64_t elements = 0;
  try {
    elements = arrays::number_of_elements(sizes);
  } catch (const std::runtime_error&) {
    throw_tarn("Cannot set data layout.");
  }
  const std::size_t element_size = tarn_dt_get_size(header.type);
  if (!in_type_table(header.type) || (element_size == 0 && header.data_length != 0) ||
      (element_size != 0 && elements > std::numeric_limits<std::uint64_t>::max() / element_size)) {
    throw_tarn("Cannot set data layout.");
  }
  if (header.compression > 1) throw_tarn("Invalid compression type specified.");

  auto stack = std::make_shared<StackImp>(host, header.type, sizes);
  std::string text;
  file.read_str(text, header.name_length);
  stack->set_name(text);
  file.read_str(text, header.description_length);
  stack->set_description(text);
  stack->set_lengths(
      std::vector<double>(header.lengths.begin(), header.lengths.begin() + header.rank));
  stack->set_offsets(
      std::vector<double>(header.offsets.begin(), header.offsets.begin() + header.rank));

  // Name and description were read, so the data position lies within the file.
  const std::uint64_t data_position =
      position + kStackHeaderSize + header.name_length + header.description_length;
  if (header.data_length > size - data_position) {
    throw_tarn("Stack data lies beyond the end of the file.");
  }
  stack->position_ = position;
  stack->format_version_ = header.version;
  stack->compression_ = static_cast<Compression>(header.compression);
  stack->compression_level_ = header.compression_level;
  stack->next_position_ = header.next_stack;
  stack->state_ = State::committed;

  std::optional<internal::ZlibSettings> zlib;
  if (stack->compression_ == Compression::zlib) {
    zlib = internal::ZlibSettings{header.compression_level, 0, file.threading_support()};
  }
  // In a file whose writer is still at work (or died), a stack whose data length is still 0
  // although it holds data is the one being written. Only the committed chunks of a chunk-wise
  // written one can be read. (In a finished file, data length 0 means no data.)
  const bool growing = header.rank > 0 && header.sizes[header.rank - 1] == 0;
  if (unfinished && header.data_length == 0 && header.data_flag != 0 && (elements > 0 || growing)) {
    if (element_size == 0 ||
        !internal::has_magic_at(file, data_position, size, internal::kChunkMagic)) {
      return nullptr;
    }
    const std::uint64_t most = growing ? (size - data_position) / element_size : elements;
    auto segment = internal::ChunkedSegment::from_frames(file, data_position, size, most,
                                                         {element_size, 1, zlib});
    std::uint64_t samples = segment->committed_samples();
    if (growing) {
      const std::uint64_t slice = stack->slice_elements();
      if (slice == 0) return nullptr;
      stack->resize_last_axis(samples / slice);
      samples = samples / slice * slice;
    }
    // Nothing committed yet: nothing to show.
    if (samples == 0) return nullptr;
    stack->unfinished_ = true;
    stack->chunk_samples_ = segment->chunks().empty() ? 0 : segment->chunks().front().samples;
    stack->data_length_ = segment->end_position() - data_position;
    stack->samples_written_ = samples;
    stack->segment_ = std::move(segment);
    stack->lock();
    return stack;
  }

  // A stack that says it holds data but has none was never committed: its writer died (or the
  // header was damaged). Reading it as a stack without data would hide that.
  if (header.data_length == 0 && header.data_flag != 0 && elements > 0) {
    throw_tarn("Stack data missing: the stack was never committed.");
  }
  const std::optional<internal::StackRecord> record =
      internal::read_stack_record(file, data_position + header.data_length, size);
  std::uint32_t minimum_reader_version = internal::kNoMinimumReaderVersion;
  if (record) {
    if (const std::string* version = record->find(internal::RecordKey::minimum_reader_version)) {
      if (version->size() != 4) {
        throw_tarn("Damaged stack record: the minimum reader version has {} bytes instead of 4.",
                   version->size());
      }
      minimum_reader_version =
          internal::get_u32({reinterpret_cast<const std::byte*>(version->data()), 4}, 0);
    }
  }
  if (minimum_reader_version != internal::kNoMinimumReaderVersion &&
      minimum_reader_version > internal::kReaderVersion) {
    throw_tarn("Cannot read stack with file format reader version {}. Need >= {}.",
               internal::kReaderVersion, minimum_reader_version);
  }
  const std::string* chunk_index =
      record ? record->find(internal::RecordKey::chunk_index) : nullptr;
  const std::string* chunk_sums =
      record ? record->find(internal::RecordKey::chunk_checksums) : nullptr;
  // Chunk frames without their index (the record was lost) are walked instead. Plain data of
  // exactly the elements' length is never taken for frames, nor is a zlib stream, whose first
  // byte differs from the frame magic's.
  const bool unindexed_frames =
      chunk_index == nullptr && header.data_length != 0 &&
      (header.compression != 0 || elements * element_size != header.data_length) &&
      internal::has_magic_at(file, data_position, data_position + header.data_length,
                             internal::kChunkMagic);
  // Plain data is exactly the elements; a reader that accepted any other length would read
  // bytes that belong to something else.
  if (header.compression == 0 && chunk_index == nullptr && !unindexed_frames &&
      header.data_length != 0 && elements * element_size != header.data_length) {
    throw_tarn("Stack data length does not match its shape.");
  }
  if (record) {
    if (const std::string* info = record->find(internal::RecordKey::stack_info)) {
      JSON::Value json;
      try {
        json = JSON::read(*info);
      } catch (const std::runtime_error& error) {
        throw_tarn("Damaged stack info: {}", error.what());
      }
      internal::apply_stack_info_json(json, *stack);
    }
  }

  stack->minimum_reader_version_ = minimum_reader_version;
  stack->no_data_ = header.data_length == 0;
  stack->data_length_ = header.data_length;
  stack->samples_written_ = stack->no_data_ ? 0 : elements;
  stack->lock();
  if (stack->no_data_) return stack;
  if (chunk_index != nullptr || unindexed_frames) {
    const internal::ChunkLayout layout{element_size, 1, zlib};
    auto segment =
        chunk_index != nullptr
            ? internal::ChunkedSegment::from_index(
                  file, data_position, header.data_length, elements, *chunk_index, layout,
                  chunk_sums != nullptr ? std::string_view(*chunk_sums) : std::string_view())
            : internal::ChunkedSegment::from_frames(
                  file, data_position, data_position + header.data_length, elements, layout);
    if (segment->committed_samples() != elements ||
        segment->end_position() != data_position + header.data_length) {
      throw_tarn("Damaged chunk index: the chunks hold {} of the stack's {} samples.",
                 segment->committed_samples(), elements);
    }
    stack->chunk_samples_ = segment->chunks().empty() ? 0 : segment->chunks().front().samples;
    stack->segment_ = std::move(segment);
  } else if (zlib) {
    std::vector<FlushPoint> points;
    std::vector<std::uint32_t> checksums;
    if (const std::string* index =
            record ? record->find(internal::RecordKey::flush_index) : nullptr) {
      points = internal::decode_flush_index(*index, elements * element_size, header.data_length);
      if (const std::string* sums = record->find(internal::RecordKey::block_checksums)) {
        checksums = internal::decode_block_checksums(*sums, points.size() - 1);
      }
    }
    stack->segment_ = std::make_unique<internal::ZlibSegment>(
        file, data_position, header.data_length, elements * element_size, std::move(points),
        zlib->threading, std::move(checksums));
  } else {
    stack->segment_ =
        std::make_unique<internal::PlainSegment>(file, data_position, header.data_length);
  }
  return stack;
}

std::uint64_t StackImp::read(std::uint64_t first, std::uint64_t count, void* buffer,
                             DataType buffer_type, void* imag) {
  StackHost& file = host();
  if (state_ != State::committed) {
    throw std::runtime_error("Stack not committed to disk. Cannot read.");
  }
  if (first == kNpos) {
    throw std::runtime_error(
        "Invalid position (-1) passed. Possible reason: Last read call exhausted data.");
  }
  if (!has_data()) throw std::runtime_error("Stack has no data. Cannot read.");
  const std::uint64_t total = number_of_elements();
  if (first > total || count > total - first) {
    throw std::invalid_argument("Requested samples lie beyond the end of the stack.");
  }
  if (first + count > samples_written_) {
    throw std::invalid_argument("Requested samples have not been written yet.");
  }
  const DataType stack_type = type();
  buffer_type = checked_buffer_type(stack_type, buffer_type, imag != nullptr, Direction::read);
  const bool convert = buffer_type != stack_type || imag != nullptr;
  if (count > 0 && buffer == nullptr) throw std::invalid_argument("Null buffer passed to read().");

  const std::size_t element_size = tarn_dt_get_size(stack_type);
  const std::uint64_t bytes = count * element_size;
  const auto report = [&](std::uint64_t done) {
    if (progress_ && !progress_(done, bytes)) throw std::runtime_error("Cancelled by user.");
  };
  auto* out = static_cast<std::byte*>(buffer);
  auto* out_imag = static_cast<std::byte*>(imag);
  const std::uint64_t start = first * element_size;
  const std::lock_guard lock(read_mutex_);
  if (!convert) {
    const std::uint64_t piece = kDirectPiece / element_size * element_size;
    for (std::uint64_t done = 0; done < bytes;) {
      const std::uint64_t n = std::min(piece, bytes - done);
      segment_->read(start + done, {out + done, n});
      done += n;
      report(done);
    }
  } else {
    const std::size_t buffer_element_size = tarn_dt_get_size(buffer_type);
    const std::uint64_t per_piece =
        std::min(bounce_elements(file.block_size(), element_size), count);
    std::vector<std::byte> bounce(per_piece * element_size);
    for (std::uint64_t done = 0; done < count;) {
      const std::uint64_t n = std::min(per_piece, count - done);
      segment_->read(start + done * element_size, {bounce.data(), n * element_size});
      const std::uint64_t at = done * buffer_element_size;
      tarn_dt_convert(stack_type, buffer_type, bounce.data(), out + at, n, nullptr,
                      out_imag != nullptr ? out_imag + at : nullptr);
      done += n;
      report(done * element_size);
    }
  }
  const std::uint64_t next = first + count;
  return next == total ? kNpos : next;
}

namespace {

internal::ZlibSegment& flush_block_segment(StackImp::State state, internal::DataSegment* segment) {
  auto* zlib = dynamic_cast<internal::ZlibSegment*>(segment);
  if (state != StackImp::State::committed || zlib == nullptr || zlib->flush_points().empty()) {
    throw std::runtime_error("No flush blocks available");
  }
  return *zlib;
}

}  // namespace

const std::vector<FlushPoint>& StackImp::flush_points() const {
  host();
  return flush_block_segment(state_, segment_.get()).flush_points();
}

std::vector<std::byte> StackImp::read_flush_blocks(std::uint64_t begin, std::uint64_t end) {
  host();
  internal::ZlibSegment& segment = flush_block_segment(state_, segment_.get());
  const std::lock_guard lock(read_mutex_);
  return segment.read_flush_blocks(begin, end);
}

void StackImp::verify() {
  host();
  if (state_ != State::committed) {
    throw std::runtime_error("Stack not committed to disk. Cannot read.");
  }
  const std::lock_guard lock(read_mutex_);
  if (auto* zlib = dynamic_cast<internal::ZlibSegment*>(segment_.get())) zlib->verify();
  if (auto* chunked = dynamic_cast<internal::ChunkedSegment*>(segment_.get())) chunked->verify();
}

}  // namespace Tarn::bf

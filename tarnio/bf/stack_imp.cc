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
#include "tarnio/bf/internal/plain_segment.h"
#include "tarnio/bf/internal/positioning.h"
#include "tarnio/bf/internal/stack_header.h"
#include "tarnio/bf/internal/stack_info_json.h"
#include "tarnio/bf/internal/stack_record.h"
#include "tarnio/bf/internal/tbf_format.h"
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
    header.sizes[i] = static_cast<std::uint32_t>(sizes[i]);
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

bool StackImp::has_data() const { return !no_data_ && number_of_elements() > 0; }

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

void StackImp::set_no_data(bool no_data) {
  host();
  if (state_ != State::describing) {
    throw std::runtime_error("Invalid attempt to change write flags.");
  }
  no_data_ = no_data;
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
  const std::uint64_t total = number_of_elements();
  if (samples_written_ == total) {
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
  if (samples > total - samples_written_) {
    throw std::runtime_error("Trying to write more samples than the stack is long.");
  }
  if (samples > 0 && data == nullptr) throw std::invalid_argument("Null buffer passed to write().");
  if (state_ == State::describing && compression_ == Compression::zlib) {
    throw std::runtime_error("zlib-compressed stacks cannot be written yet.");
  }

  if (state_ == State::describing) {
    begin_writing(file);
    segment_ = std::make_unique<internal::PlainSegment>(file.access(), data_position());
  }
  check_position(file.access(), data_position() + samples_written_ * element_size);

  const std::uint64_t stack_bytes = total * element_size;
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
      if (samples_written_ < number_of_elements()) {
        throw std::runtime_error("Not enough samples written.");
      }
      break;
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
  const std::size_t element_size = tarn_dt_get_size(type());
  check_position(file.access(), data_position() + samples_written_ * element_size);

  try {
    DiskFileAccess& access = file.access();
    std::uint64_t data_length = 0;
    if (segment_ != nullptr) {
      data_length = segment_->finish();
      for (auto& [key, value] : segment_->record_entries()) record.add(key, std::move(value));
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
  if (!in_type_table(header.type) || (element_size == 0 && header.data_length != 0)) {
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
  // Plain data is exactly the elements; a reader that accepted any other length would read
  // bytes that belong to something else.
  if (header.compression == 0 && header.data_length != 0 &&
      (elements > std::numeric_limits<std::uint64_t>::max() / element_size ||
       elements * element_size != header.data_length)) {
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

  stack->position_ = position;
  stack->format_version_ = header.version;
  stack->minimum_reader_version_ = minimum_reader_version;
  stack->compression_ = static_cast<Compression>(header.compression);
  stack->compression_level_ = header.compression_level;
  stack->no_data_ = header.data_length == 0;
  stack->data_length_ = header.data_length;
  stack->next_position_ = header.next_stack;
  stack->samples_written_ = stack->no_data_ ? 0 : elements;
  stack->state_ = State::committed;
  stack->lock();
  if (stack->compression_ == Compression::none && !stack->no_data_) {
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
  const DataType stack_type = type();
  buffer_type = checked_buffer_type(stack_type, buffer_type, imag != nullptr, Direction::read);
  const bool convert = buffer_type != stack_type || imag != nullptr;
  if (compression_ != Compression::none) {
    throw std::runtime_error("zlib-compressed stacks cannot be read yet.");
  }
  if (count > 0 && buffer == nullptr) throw std::invalid_argument("Null buffer passed to read().");

  const std::size_t element_size = tarn_dt_get_size(stack_type);
  const std::uint64_t bytes = count * element_size;
  const auto report = [&](std::uint64_t done) {
    if (progress_ && !progress_(done, bytes)) throw std::runtime_error("Cancelled by user.");
  };
  auto* out = static_cast<std::byte*>(buffer);
  auto* out_imag = static_cast<std::byte*>(imag);
  const std::uint64_t start = first * element_size;
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

}  // namespace Tarn::bf

#pragma once

// Tarn::bf::StackImp: one n-dimensional stack inside a TBF file, as its file hands it out
// (FileInterface::add_stack for a new one, FileInterface::stack for an existing one). It is the
// stack's info (dimensions, lengths, offsets, labels, units, tags, ...) plus the element data
// on disk, written once front to back, committed, and read back in any order afterwards.
//
// Lifecycle of a new stack:
//   describe   set the info, set_type() if it was created without one, set_compression(), the
//              write flags (set_no_data, set_chunk_wise, set_variable_last_dimension), the
//              flush block size; nothing is on disk yet. reserve_space() may follow.
//   write      the first write() (or reserve_space()) puts the 368-byte header, the name and the
//              description on disk and links the stack into the file's chain; from then on the
//              info is locked (tags excepted). Each write() appends whole samples, converted from
//              the buffer's element type when it differs.
//   commit     after the last sample: patches the data length, and writes the stack record
//              (minimum reader version, the whole info, tags included, and the flush and chunk
//              indices) behind the data.
//   read       any range of samples of a committed stack, converted into the buffer's type.
// A stack without data (set_no_data, or 0 elements) is written at commit, header and record.
//
// Data is stored plain, or as one zlib stream (set_compression) that any inflater reads, with a
// full flush every flush block so that a read inflates only the blocks it needs, on the file's
// threads (FileInterface::set_threading_support). A chunk-wise written stack stores its data in
// chunks that are readable as soon as each is complete, from another process too
// (Tarn::open_unfinished_file), and survive a writer that dies; a stack whose last dimension is
// variable grows chunk by chunk for as long as its writer writes, and its committed shape is
// what was written.
//
// Errors: misuse is a std::runtime_error with the sentences of the lifecycle ("Stack is already
// complete. Invalid call to write().", "Not on sample boundary.", "Stack not committed to disk.
// Cannot read.", ...); bad arguments a std::invalid_argument; damaged files and failures of
// the system a TarnError. A failed call leaves the stack as it was, except that a failed write
// of data leaves it failed.
//
// Not thread-safe: one thread at a time uses a stack and its file. Any use after the file was
// closed fails with "Cannot access File_Stack, file has been closed.".

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>

#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/region.h"
#include "tarnio/arrays/stack_info_imp.h"
#include "tarnio/bf/flush_point.h"
#include "tarnio/export.h"

namespace Tarn::bf {

class StackHost;
namespace internal {
class DataSegment;
}  // namespace internal

// Progress of a long write() or read(), called at least once per 64 MiB: for write(), the
// bytes of the stack's data written so far, of all of them; for read(), the bytes of this call
// done so far, of the call's. Returning false cancels the call with "Cancelled by user.".
using ProgressCallback = std::function<bool(std::uint64_t done, std::uint64_t total)>;

class TARNIO_EXPORT StackImp : public arrays::StackInfoImp {
 public:
  enum class State : std::int32_t {
    describing,  // new, nothing on disk
    writing,     // header on disk, data arriving
    committed,   // complete; readable
    failed,      // a write failed or was cancelled; the file drops the stack at close
  };
  enum class Compression : std::uint32_t { none = 0, zlib = 1 };

  // The all-ones sample position: read() returns it when the data is exhausted.
  static constexpr std::uint64_t kNpos = ~std::uint64_t{0};

  // New stacks come from FileInterface::add_stack, existing ones from FileInterface::stack.
  StackImp(StackHost& host, DataType type, std::span<const std::uint64_t> sizes);
  ~StackImp() override;
  StackImp(const StackImp&) = delete;
  StackImp& operator=(const StackImp&) = delete;

  // Reads the stack whose header starts at `position` of the host's file; the stack is
  // committed (or without data). Throws TarnError "Stack header not in TBF format.", "Cannot
  // set data layout.", "Cannot read stack with file format reader version 7. Need >= {}." and
  // the disk file's errors for a damaged or truncated stack.
  static std::shared_ptr<StackImp> read_from(StackHost& host, std::uint64_t position);
  // As read_from for a file whose writer is still at work or died: a stack whose data length is
  // still 0 is returned when it is written chunk-wise, with the chunks committed so far (a
  // variable last dimension counts the whole slices among them), and is null otherwise (it
  // holds nothing that could be read).
  static std::shared_ptr<StackImp> read_unfinished_from(StackHost& host, std::uint64_t position);

  State state() const { return state_; }
  bool is_committed() const { return state_ == State::committed; }

  // Describing; each throws std::runtime_error once writing has begun (see the messages).
  // Throws std::runtime_error "The type is already set to '{}'." (the type's decimal code) when
  // the stack has a type.
  void set_type(DataType type);
  // Throws std::runtime_error "Invalid compression type specified." for a type above 1 and
  // "Cannot change compression mode." once writing began. The level (0 to 9) is stored.
  void set_compression(Compression type, std::uint32_t level = 6);
  Compression compression() const { return compression_; }
  std::uint32_t compression_level() const { return compression_level_; }
  // Plain bytes between two flush points of compressed data (by default the file's block size,
  // 4 MiB). Throws std::runtime_error "Flush block size can only be set before starting to
  // write." once writing began, std::invalid_argument for 0.
  void set_flush_block_size(std::uint64_t bytes);
  std::uint64_t flush_block_size() const;

  // Write flags; each throws std::runtime_error "Invalid attempt to change write flags." once
  // writing began.
  // A stack without data describes only; it takes no write() and is stored with data flag 0.
  void set_no_data(bool no_data);
  bool has_data() const;
  // Writes the data in chunks of `chunk_samples` samples (0: the default chunk, one slice of the
  // last dimension), each committed to the file when complete. Throws std::runtime_error
  // "Custom varsize chunk size must be multiple of default chunk size" for a chunk of partial
  // slices, std::invalid_argument for a stack of rank 0.
  void set_chunk_wise(bool chunk_wise, std::uint64_t chunk_samples = 0);
  bool is_chunk_wise() const { return chunk_samples_ != 0; }
  std::uint64_t chunk_samples() const { return chunk_samples_; }
  // The last dimension grows with every slice written, without limit: the stack is written
  // chunk-wise (default chunks unless set_chunk_wise chose others), its last size at creation
  // does not matter, and commit() makes the slices written its size. Throws
  // std::invalid_argument for a stack of rank 0.
  void set_variable_last_dimension(bool variable);
  bool has_variable_last_dimension() const { return variable_; }

  // Fixes the file's layout before the data arrives: puts the header on disk (as the first
  // write() would) and reserves the data's full plain length behind it, which stays sparse
  // until written; a compressed stack leaves the unused rest as a gap that compaction removes.
  // Refused with std::runtime_error "Cannot reserve space: ..." (complete; in an invalid state:
  // failed or writing began; the last dimension is variable sized; created as data less; data
  // type not (yet) determined) and "Invalid attempt to reserve space: Stack is written chunk
  // wise.".
  void reserve_space();
  void set_progress_callback(ProgressCallback callback);

  // Appends `bytes` bytes of samples of `buffer_type` (none: the stack's type). With `imag`,
  // `data` holds the real and `imag` the imaginary parts of a complex stack, both of the real
  // `buffer_type`. Throws the lifecycle's messages: "Trying to write to empty stack.", "Stack is
  // already complete. Invalid call to write().", "Not on sample boundary.", "Trying to write
  // more samples than the stack is long.", "Invalid on-the-fly conversion from '{}' to '{}'." (the
  // stored type's name, then the buffer's), "Imaginary block given but ...", "Cancelled by user.".
  void write(const void* data, std::uint64_t bytes, DataType buffer_type = Tarn::dt::none,
             const void* imag = nullptr);
  template <class T>
  void write(std::span<const T> samples) {
    write(samples.data(), samples.size_bytes(), arrays::data_type_of<T>());
  }

  // Completes the stack. Throws "Not enough samples written.", "Stack data type not set.
  // Cannot commit stack to file." and "Stack not ready to be committed. Meta-information
  // missing." as the lifecycle says.
  void commit();

  // Reads `count` samples from sample `first` into `buffer` as `buffer_type` (none: the
  // stack's type), with `imag` splitting complex samples as for write(). Returns the position
  // after the last sample read, or kNpos when that is the end of the data. Throws "Stack not
  // committed to disk. Cannot read.", "Invalid position (-1) passed. Possible reason: Last read
  // call exhausted data." for first == kNpos, std::invalid_argument "Requested samples lie
  // beyond the end of the stack." and the conversion and imaginary-buffer messages.
  std::uint64_t read(std::uint64_t first, std::uint64_t count, void* buffer,
                     DataType buffer_type = Tarn::dt::none, void* imag = nullptr);
  template <class T>
  std::uint64_t read(std::uint64_t first, std::span<T> samples) {
    return read(first, samples.size(), samples.data(), arrays::data_type_of<T>());
  }

  // Reads the elements of `region` (start, size and step per axis, one axis per dimension) into
  // `buffer`, in column-major order of the region (axis 0 fastest), as `buffer_type`, with
  // `imag` as for read(). Only the flush blocks and chunks the region touches are read, each
  // inflated once, however many short lines the region is made of. Throws as read() does,
  // std::invalid_argument "Region does not fit the stack." for a region of another rank or
  // reaching beyond the shape, and "Requested samples have not been written yet." for one that
  // reaches beyond the chunks an unfinished stack has.
  void read_region(const arrays::Region& region, void* buffer,
                   DataType buffer_type = Tarn::dt::none, void* imag = nullptr);
  // Throws std::invalid_argument "Buffer too small for the region." when `out` holds fewer
  // elements than the region.
  template <class T>
  void read_region(const arrays::Region& region, std::span<T> out) {
    if (out.size() < region.number_of_elements()) {
      throw std::invalid_argument("Buffer too small for the region.");
    }
    read_region(region, out.data(), arrays::data_type_of<T>());
  }

  // The flush points of a compressed stack's data. Throws std::runtime_error "No flush blocks
  // available" for plain, chunk-wise and not yet committed stacks and for streams stored
  // without an index.
  const std::vector<FlushPoint>& flush_points() const;
  // The stored bytes of plain bytes [begin, end) of a committed compressed stack, as raw deflate
  // runs (see internal/zlib_segment.h). Throws "No flush blocks available" as flush_points()
  // and "Requested range is not flush point aligned, empty or has not yet been written" unless
  // begin < end are flush points.
  std::vector<std::byte> read_flush_blocks(std::uint64_t begin, std::uint64_t end);
  // Reads every stored byte of a committed stack and checks it: each zlib stream inflates to
  // what its index says, with the right adler32; chunk frames agree with the chunk index.
  // Throws TarnError at the first fault.
  void verify();
  // Samples a reader can have: all of a committed stack, those of the committed chunks of a
  // stack opened while (or after) its writer was at work (Tarn::open_unfinished_file).
  std::uint64_t samples_available() const { return samples_written_; }
  // Whether the stack was read from a file that was not finished and is incomplete itself.
  bool is_unfinished() const { return unfinished_; }

  // Where the stack lies in its file.
  std::uint64_t position() const { return position_; }
  std::uint64_t data_position() const;
  // The length of the data on disk: element count × element size for plain data; 0 until
  // committed and for a stack without data.
  std::uint64_t data_length() const { return data_length_; }
  std::uint64_t next_position() const { return next_position_; }
  // The version of the stack header (7 for stacks this library writes).
  std::uint32_t format_version() const { return format_version_; }
  // kNoMinimumReaderVersion (0xFFFFFFFF) when the stack names none.
  std::uint32_t minimum_reader_version() const { return minimum_reader_version_; }

 protected:
  // Used by the host (the file): the link field of this stack's header, and the end of the
  // file's use of the stack.
  friend class FileImp;
  void set_next_position(std::uint64_t next) { next_position_ = next; }
  void detach_from_file() { host_ = nullptr; }

 private:
  // Throws std::runtime_error "Cannot access File_Stack, file has been closed." after close.
  StackHost& host() const;
  // Puts the header, name and description on disk and links the stack into its file's chain;
  // the stack is being written afterwards, or failed when that went wrong.
  void begin_writing(StackHost& file);
  // Marks the stack failed and ends its file's claim on it.
  void fail() noexcept;
  // Throws "Cannot access File_Stack, file has been closed." after close and "Invalid attempt
  // to change write flags." once writing began.
  void require_write_flags_open() const;
  // The segment that stores this stack's data as it is written.
  std::unique_ptr<internal::DataSegment> new_segment(StackHost& file) const;
  // Elements of all dimensions but the last: one slice, the default chunk.
  std::uint64_t slice_elements() const;
  // The samples write() still accepts.
  std::uint64_t samples_left() const;
  static std::shared_ptr<StackImp> read_stack(StackHost& host, std::uint64_t position,
                                              bool unfinished);

  StackHost* host_;
  std::unique_ptr<internal::DataSegment> segment_;
  ProgressCallback progress_;
  State state_ = State::describing;
  Compression compression_ = Compression::none;
  std::uint32_t compression_level_ = 0;
  bool no_data_ = false;
  bool variable_ = false;
  bool unfinished_ = false;
  std::uint64_t chunk_samples_ = 0;
  std::uint64_t flush_block_size_ = 0;
  std::uint32_t format_version_;
  std::uint32_t minimum_reader_version_;
  std::uint64_t position_ = 0;
  std::uint64_t data_length_ = 0;
  std::uint64_t next_position_ = 0;
  std::uint64_t samples_written_ = 0;
};

}  // namespace Tarn::bf

#include "tarnio/bf/internal/zlib_segment.h"

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string_view>

#include "tarnio/bf/internal/deflate_engine.h"
#include "tarnio/bf/internal/flush_index.h"
#include "tarnio/bf/internal/parallel_tasks.h"
#include "tarnio/bf/internal/positioning.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::bf::internal {

namespace {

// Stored bytes read from the file at once when inflating front to back.
constexpr std::size_t kCursorInput = std::size_t{256} << 10;
// Plain bytes inflated at once where they are only checked or skipped.
constexpr std::size_t kWindow = std::size_t{1} << 20;
// The cursor's block when it inflates a whole stream without index, and when it has nothing.
constexpr std::size_t kWholeStream = std::numeric_limits<std::size_t>::max() - 1;
constexpr std::size_t kNoBlock = std::numeric_limits<std::size_t>::max();

[[noreturn]] void damaged(std::string_view what) {
  errors::internal::throw_tarn("Damaged compressed data: {}", what);
}

// Engines for the tasks of one segment: each task borrows one and gives it back, so a segment
// makes no more of them than tasks run at once.
template <typename Engine>
class EnginePool {
 public:
  explicit EnginePool(std::function<std::unique_ptr<Engine>()> make) : make_(std::move(make)) {}

  class Lease {
   public:
    Lease(EnginePool& pool, std::unique_ptr<Engine> engine)
        : pool_(pool), engine_(std::move(engine)) {}
    ~Lease() { pool_.give_back(std::move(engine_)); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Engine& operator*() const { return *engine_; }
    Engine* operator->() const { return engine_.get(); }

   private:
    EnginePool& pool_;
    std::unique_ptr<Engine> engine_;
  };

  Lease take() {
    {
      const std::lock_guard lock(mutex_);
      if (!idle_.empty()) {
        std::unique_ptr<Engine> engine = std::move(idle_.back());
        idle_.pop_back();
        return Lease(*this, std::move(engine));
      }
    }
    return Lease(*this, make_());
  }

 private:
  void give_back(std::unique_ptr<Engine> engine) noexcept {
    const std::lock_guard lock(mutex_);
    try {
      idle_.push_back(std::move(engine));
    } catch (...) {
      // Without room to keep it, the engine is simply freed.
    }
  }

  std::function<std::unique_ptr<Engine>()> make_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Engine>> idle_;
};

// Memory beyond the caller's buffer that writing may take besides (threads + 1) flush blocks.
constexpr std::uint64_t kExtraMemory = std::uint64_t{16} << 20;

// How many blocks a writing segment deflates at once and how many blocks of plain input it
// keeps (those in flight and, when memory allows, the one being filled meanwhile).
struct Pipeline {
  std::size_t tasks = 1;
  std::size_t blocks = 1;
};

// Each task in flight holds a block of plain input, a buffer for its run (room for the
// largest run, which incompressible data fills) and an engine; the count follows from the
// budget of (threads + 1) blocks + 16 MiB, whatever the data. With 4 MiB blocks that is every
// thread up to 4 for the light engines; the near-optimal engines of the highest levels, whose
// state alone is 8 MiB, get one task on 2 threads and two on 4.
Pipeline write_pipeline(const ParallelTasks& tasks, std::uint32_t level, std::uint64_t block) {
  if (tasks.runs_inline()) return {};
  const std::uint64_t threads = tasks.threads();
  const std::uint64_t budget = (threads + 1) * block + kExtraMemory;
  const std::uint64_t per_task = max_run_size(block) + deflater_state_size(level);
  for (std::uint64_t count = threads; count >= 1; --count) {
    for (std::uint64_t blocks = count + 1; blocks >= count; --blocks) {
      if (blocks * block + count * per_task <= budget) {
        return {static_cast<std::size_t>(count), static_cast<std::size_t>(blocks)};
      }
    }
  }
  return {};
}

// A flush block of plain input and, once deflated, the adler32 of its bytes.
struct WriteSlot {
  std::vector<std::byte> plain;
  std::uint32_t adler = 1;
};

// The stored bytes of a block being inflated, and for checking, a window for its plain bytes.
struct ReadSlot {
  ByteBuffer stored;
  ByteBuffer window;
  std::uint32_t adler = 1;
};

}  // namespace

struct ZlibSegment::State {
  State(DiskFileAccess& access, std::uint64_t position, ThreadingSupport threading_support)
      : file(access), data_position(position), threading(std::move(threading_support)) {}

  DiskFileAccess& file;
  std::uint64_t data_position;
  bool writing = false;
  bool broken = false;
  // Reading: the stream's length; writing: the bytes in the file so far.
  std::uint64_t stored_length = 0;
  std::uint64_t plain_length = 0;
  std::vector<FlushPoint> points;
  std::uint64_t blocks_inflated = 0;
  std::uint64_t known_file_size = 0;

  // Writing.
  std::uint32_t level = 6;
  std::uint64_t block_size = 0;
  std::uint32_t adler = 1;
  std::uint64_t blocks_begun = 0;

  // Inflating front to back, within one flush block or through a whole stream.
  struct Cursor {
    Inflater inflater;
    ByteBuffer input;
    std::size_t input_begin = 0;
    std::size_t input_end = 0;
    std::uint64_t stored_next = 0;
    std::uint64_t stored_end = 0;
    std::uint64_t plain_position = 0;
    std::size_t block = kNoBlock;
  };
  std::unique_ptr<Cursor> cursor;
  ByteBuffer skip;

  // Threads exist only while a call of the segment (or the writing) needs them: each read()
  // starts and ends its own, so that an idle segment holds none.
  ThreadingSupport threading;
  std::unique_ptr<EnginePool<Deflater>> deflaters;
  EnginePool<Inflater> inflaters{[] { return std::make_unique<Inflater>(); }};
  std::vector<WriteSlot> write_slots;
  // One run per task in flight, in the task's window slot.
  std::vector<ByteBuffer> runs;
  std::vector<ReadSlot> read_slots;
  // Declared last, window behind tasks: the window waits for every task, then the threads
  // end, and only then any buffer or engine goes.
  std::unique_ptr<ParallelTasks> write_tasks;
  std::unique_ptr<TaskWindow> write_window;

  // A window for inflating on `tasks`: one block more than the threads, so that the next
  // block's stored bytes are read while they inflate.
  std::unique_ptr<TaskWindow> read_window(ParallelTasks& tasks) {
    const std::size_t capacity = tasks.runs_inline() ? 1 : tasks.threads() + 1;
    if (read_slots.size() < capacity) read_slots.resize(capacity);
    return std::make_unique<TaskWindow>(tasks, capacity);
  }

  // The block that holds plain byte `offset` (< plain_length), for a stream with an index.
  std::size_t block_of(std::uint64_t offset) const {
    const auto after = std::upper_bound(
        points.begin(), points.end(), offset,
        [](std::uint64_t value, const FlushPoint& point) { return value < point.plain_offset; });
    return static_cast<std::size_t>(after - points.begin()) - 1;
  }

  // Makes sure that stored bytes up to `stored_end` lie within the file before anything is
  // sized by them.
  void ensure_in_file(std::uint64_t stored_end) {
    if (stored_end > std::numeric_limits<std::uint64_t>::max() - data_position) {
      damaged("the stream runs past the end of the file.");
    }
    const std::uint64_t needed = data_position + stored_end;
    if (needed <= known_file_size) return;
    known_file_size = file_size(file);
    if (needed > known_file_size) damaged("the stream runs past the end of the file.");
  }

  void read_stored(std::uint64_t begin, std::span<std::byte> out) {
    const std::uint64_t position = data_position + begin;
    if (file.tell() != position) seek_exactly(file, position);
    file.read(out.data(), out.size());
  }

  void require_reading() const {
    if (writing) {
      throw std::runtime_error("Zipped segment unexpectedly initialized in write mode.");
    }
  }

  // Writing.
  void write_bytes(std::span<const std::byte> bytes) {
    file.write(bytes.data(), bytes.size());
    stored_length += bytes.size();
  }
  // The block that takes the next bytes; when it is still in flight, first writes the oldest.
  WriteSlot& filling() {
    if (write_window->size() == write_slots.size()) write_oldest();
    return write_slots[blocks_begun % write_slots.size()];
  }
  void submit_filling();
  void write_oldest();

  // Reading.
  void launch_block(TaskWindow& window, std::size_t block, std::span<std::byte> out);
  void cursor_read(std::size_t block, std::uint64_t offset, std::span<std::byte> out);
  void start_cursor(std::size_t block);
  void cursor_refill();
  void cursor_produce(std::span<std::byte> out);
  void cursor_skip_to(std::uint64_t offset);
  bool cursor_input_left() const {
    return cursor->input_begin < cursor->input_end || cursor->stored_next < cursor->stored_end;
  }
  void verify_blocks();
  void verify_stream();
};

void ZlibSegment::State::submit_filling() {
  TaskWindow& window = *write_window;
  if (window.full()) write_oldest();
  const std::size_t slot = window.next_slot();
  WriteSlot& block = filling();
  ByteBuffer& run = runs[slot];
  window.launch([this, &block, &run] {
    auto deflater = deflaters->take();
    block.adler = deflater->deflate_run(block.plain, run);
  });
  ++blocks_begun;
  if (write_tasks->runs_inline()) write_oldest();
}

void ZlibSegment::State::write_oldest() {
  const std::uint64_t block_number = blocks_begun - write_window->size();
  const std::size_t slot = write_window->collect();
  WriteSlot& block = write_slots[block_number % write_slots.size()];
  const ByteBuffer& run = runs[slot];
  write_bytes(run);
  const std::uint64_t plain = block.plain.size();
  adler = adler32_join(adler, block.adler, plain);
  points.push_back({points.back().plain_offset + plain, stored_length});
  block.plain.clear();
}

void ZlibSegment::State::launch_block(TaskWindow& window, std::size_t block,
                                      std::span<std::byte> out) {
  const FlushPoint& begin = points[block];
  const FlushPoint& end = points[block + 1];
  ensure_in_file(end.stored_offset);
  ByteBuffer& stored = read_slots[window.next_slot()].stored;
  stored.resize(end.stored_offset - begin.stored_offset);
  read_stored(begin.stored_offset, stored);
  ++blocks_inflated;
  window.launch([this, &stored, out] { inflaters.take()->inflate_run(stored, out); });
}

void ZlibSegment::State::start_cursor(std::size_t block) {
  if (!cursor) {
    cursor = std::make_unique<Cursor>();
    cursor->input.resize(kCursorInput);
  }
  Cursor& c = *cursor;
  c.block = kNoBlock;
  c.input_begin = c.input_end = 0;
  if (block == kWholeStream) {
    c.stored_next = 0;
    c.stored_end = stored_length;
    c.plain_position = 0;
    c.inflater.start(Inflater::Wrapper::zlib);
    ensure_in_file(stored_length);
    if (stored_length < kZlibHeaderSize) damaged("the stream ends early.");
    std::array<std::byte, kZlibHeaderSize> header{};
    read_stored(0, header);
    if (!is_zlib_header(header)) damaged("invalid zlib header.");
  } else {
    c.stored_next = points[block].stored_offset;
    c.stored_end = points[block + 1].stored_offset;
    c.plain_position = points[block].plain_offset;
    c.inflater.start(Inflater::Wrapper::raw_run);
    ensure_in_file(c.stored_end);
  }
  ++blocks_inflated;
  c.block = block;
}

void ZlibSegment::State::cursor_refill() {
  Cursor& c = *cursor;
  if (c.input_begin < c.input_end || c.stored_next == c.stored_end) return;
  const auto n = static_cast<std::size_t>(
      std::min<std::uint64_t>(c.input.size(), c.stored_end - c.stored_next));
  read_stored(c.stored_next, std::span(c.input).first(n));
  c.stored_next += n;
  c.input_begin = 0;
  c.input_end = n;
}

void ZlibSegment::State::cursor_produce(std::span<std::byte> out) {
  Cursor& c = *cursor;
  std::size_t produced = 0;
  while (produced < out.size()) {
    cursor_refill();
    const Inflater::Step step = c.inflater.inflate_some(
        std::span(c.input).subspan(c.input_begin, c.input_end - c.input_begin),
        out.subspan(produced));
    c.input_begin += step.consumed;
    produced += step.produced;
    c.plain_position += step.produced;
    if (step.consumed == 0 && step.produced == 0) {
      // Nothing moves: the stream or its stored bytes ended too early.
      if (c.block != kWholeStream) {
        damaged("a flush block inflates to fewer bytes than the index says.");
      }
      if (c.inflater.finished()) {
        damaged("the stream inflates to fewer bytes than the stack holds.");
      }
      if (!cursor_input_left()) damaged("the stream ends early.");
      damaged("the inflater stopped.");
    }
  }
}

void ZlibSegment::State::cursor_skip_to(std::uint64_t offset) {
  if (skip.empty()) skip.resize(kWindow);
  while (cursor->plain_position < offset) {
    const auto n = static_cast<std::size_t>(
        std::min<std::uint64_t>(skip.size(), offset - cursor->plain_position));
    cursor_produce(std::span(skip).first(n));
  }
}

void ZlibSegment::State::cursor_read(std::size_t block, std::uint64_t offset,
                                     std::span<std::byte> out) {
  if (!cursor || cursor->block != block || cursor->plain_position > offset) start_cursor(block);
  try {
    cursor_skip_to(offset);
    cursor_produce(out);
  } catch (...) {
    cursor->block = kNoBlock;
    throw;
  }
}

void ZlibSegment::State::verify_blocks() {
  std::array<std::byte, kZlibHeaderSize> header{};
  const FlushPoint& last = points.back();
  ensure_in_file(stored_length);
  read_stored(0, header);
  if (!is_zlib_header(header)) damaged("invalid zlib header.");
  if (stored_length - last.stored_offset != kZlibTrailerSize) {
    damaged("bytes follow the end of the stream.");
  }

  std::uint32_t combined = 1;
  ParallelTasks tasks(threading);
  const std::unique_ptr<TaskWindow> owned_window = read_window(tasks);
  TaskWindow& window = *owned_window;
  std::size_t next = 0;
  const std::size_t blocks = points.size() - 1;
  const auto collect = [&] {
    const std::size_t block = next - window.size();
    const std::size_t slot = window.collect();
    combined = adler32_join(combined, read_slots[slot].adler,
                            points[block + 1].plain_offset - points[block].plain_offset);
  };
  while (next < blocks) {
    if (window.full()) collect();
    ReadSlot& slot = read_slots[window.next_slot()];
    if (slot.window.empty()) slot.window.resize(kWindow);
    const FlushPoint& begin = points[next];
    const FlushPoint& end = points[next + 1];
    slot.stored.resize(end.stored_offset - begin.stored_offset);
    read_stored(begin.stored_offset, slot.stored);
    ++blocks_inflated;
    const std::uint64_t plain = end.plain_offset - begin.plain_offset;
    window.launch([this, &slot, plain] {
      slot.adler = inflaters.take()->check_run(slot.stored, plain, slot.window);
    });
    ++next;
  }
  while (!window.empty()) collect();

  std::array<std::byte, kZlibTrailerSize> trailer{};
  read_stored(last.stored_offset, trailer);
  const auto expected = zlib_trailer(combined);
  if (!std::equal(trailer.begin(), trailer.begin() + 2, expected.begin())) {
    damaged("the stream does not end with an empty final block.");
  }
  if (trailer != expected) damaged("the adler32 does not match the data.");
}

void ZlibSegment::State::verify_stream() {
  start_cursor(kWholeStream);
  try {
    cursor_skip_to(plain_length);
    // The rest of the stored bytes must end the stream, adler32 included, and add nothing.
    Cursor& c = *cursor;
    std::array<std::byte, 64> extra{};
    while (!c.inflater.finished()) {
      cursor_refill();
      const Inflater::Step step = c.inflater.inflate_some(
          std::span(c.input).subspan(c.input_begin, c.input_end - c.input_begin), extra);
      if (step.produced != 0) damaged("the stream inflates to more bytes than the stack holds.");
      c.input_begin += step.consumed;
      if (step.consumed == 0 && !c.inflater.finished()) damaged("the stream ends early.");
    }
    if (cursor_input_left() || c.inflater.unused_input() != 0) {
      damaged("bytes follow the end of the stream.");
    }
  } catch (...) {
    cursor->block = kNoBlock;
    throw;
  }
  cursor->block = kNoBlock;
}

ZlibSegment::ZlibSegment(DiskFileAccess& file, std::uint64_t data_position, ZlibSettings settings)
    : state_(std::make_unique<State>(file, data_position, std::move(settings.threading))) {
  if (settings.level > 9) throw std::invalid_argument("Invalid compression level.");
  if (settings.flush_block_size == 0) throw std::invalid_argument("Invalid flush block size.");
  State& s = *state_;
  s.writing = true;
  s.level = settings.level;
  s.block_size = settings.flush_block_size;
  s.deflaters = std::make_unique<EnginePool<Deflater>>(
      [level = s.level] { return std::make_unique<Deflater>(level); });
  s.write_tasks = std::make_unique<ParallelTasks>(s.threading);
  const Pipeline pipeline = write_pipeline(*s.write_tasks, s.level, s.block_size);
  s.write_slots.resize(pipeline.blocks);
  s.runs.resize(pipeline.tasks);
  s.write_window = std::make_unique<TaskWindow>(*s.write_tasks, pipeline.tasks);
  s.points.push_back({0, kZlibHeaderSize});
  s.write_bytes(zlib_header(s.level));
}

ZlibSegment::ZlibSegment(DiskFileAccess& file, std::uint64_t data_position,
                         std::uint64_t stored_length, std::uint64_t plain_length,
                         std::vector<FlushPoint> flush_points, ThreadingSupport threading)
    : state_(std::make_unique<State>(file, data_position, std::move(threading))) {
  State& s = *state_;
  s.stored_length = stored_length;
  s.plain_length = plain_length;
  s.points = std::move(flush_points);
}

ZlibSegment::~ZlibSegment() = default;

void ZlibSegment::append(std::span<const std::byte> bytes) {
  State& s = *state_;
  if (!s.writing) throw std::runtime_error("Compressed stack data is already complete.");
  if (s.broken) throw std::runtime_error("Writing compressed stack data failed before.");
  try {
    while (!bytes.empty()) {
      WriteSlot& block = s.filling();
      if (block.plain.capacity() < s.block_size) block.plain.reserve(s.block_size);
      const auto take = static_cast<std::size_t>(
          std::min<std::uint64_t>(s.block_size - block.plain.size(), bytes.size()));
      const std::span<const std::byte> piece = bytes.first(take);
      block.plain.insert(block.plain.end(), piece.begin(), piece.end());
      bytes = bytes.subspan(take);
      if (block.plain.size() == s.block_size) s.submit_filling();
    }
  } catch (...) {
    s.broken = true;
    throw;
  }
}

std::uint64_t ZlibSegment::finish() {
  State& s = *state_;
  if (!s.writing) return s.stored_length;
  if (s.broken) throw std::runtime_error("Writing compressed stack data failed before.");
  try {
    if (!s.filling().plain.empty()) s.submit_filling();
    while (!s.write_window->empty()) s.write_oldest();
    s.write_bytes(zlib_trailer(s.adler));
  } catch (...) {
    s.broken = true;
    throw;
  }
  s.plain_length = s.points.back().plain_offset;
  s.writing = false;
  s.write_window.reset();
  s.write_tasks.reset();
  s.write_slots = std::vector<WriteSlot>();
  s.runs = std::vector<ByteBuffer>();
  s.deflaters.reset();
  return s.stored_length;
}

void ZlibSegment::read(std::uint64_t offset, std::span<std::byte> out) {
  State& s = *state_;
  s.require_reading();
  if (offset > s.plain_length || out.size() > s.plain_length - offset) {
    throw std::out_of_range("Bytes beyond the end of the stack data requested.");
  }
  if (out.empty()) return;
  if (s.points.empty()) {
    // A stream without index: front to back, going on from the last read where it can.
    s.cursor_read(kWholeStream, offset, out);
    return;
  }
  const std::uint64_t end = offset + out.size();
  const std::size_t first = s.block_of(offset);
  const std::size_t last = s.block_of(end - 1);
  const auto block_span = [&](std::size_t block) {
    const std::uint64_t begin = std::max(s.points[block].plain_offset, offset);
    const std::uint64_t stop = std::min(s.points[block + 1].plain_offset, end);
    return out.subspan(static_cast<std::size_t>(begin - offset),
                       static_cast<std::size_t>(stop - begin));
  };
  const auto whole = [&](std::size_t block) {
    return s.points[block].plain_offset >= offset && s.points[block + 1].plain_offset <= end;
  };
  const bool head_partial = !whole(first);
  const bool tail_partial = last != first && !whole(last);
  std::size_t next = head_partial ? first + 1 : first;
  const std::size_t stop = tail_partial ? last : last + 1;

  // Whole blocks inflate on the tasks straight into `out`; the partial ones at the ends go
  // through the cursor in this thread meanwhile, so that the next read can go on from there.
  ParallelTasks tasks(s.threading);
  const std::unique_ptr<TaskWindow> owned_window = s.read_window(tasks);
  TaskWindow& window = *owned_window;
  while (next < stop && !window.full()) {
    s.launch_block(window, next, block_span(next));
    ++next;
  }
  if (head_partial) s.cursor_read(first, offset, block_span(first));
  while (next < stop) {
    if (window.full()) window.collect();
    s.launch_block(window, next, block_span(next));
    ++next;
  }
  if (tail_partial) s.cursor_read(last, s.points[last].plain_offset, block_span(last));
  while (!window.empty()) window.collect();
}

std::pair<std::uint64_t, std::uint64_t> ZlibSegment::decode_unit(std::uint64_t offset) {
  const State& s = *state_;
  if (s.points.empty() || offset >= s.plain_length) return {offset, offset};
  const std::size_t block = s.block_of(offset);
  return {s.points[block].plain_offset, s.points[block + 1].plain_offset};
}

std::vector<std::pair<RecordKey, std::string>> ZlibSegment::record_entries() const {
  const State& s = *state_;
  if (s.writing || s.points.empty()) return {};
  return {{RecordKey::flush_index, encode_flush_index(s.points)}};
}

std::uint64_t ZlibSegment::end_position() const {
  return state_->data_position + state_->stored_length;
}

const std::vector<FlushPoint>& ZlibSegment::flush_points() const { return state_->points; }

std::vector<std::byte> ZlibSegment::read_flush_blocks(std::uint64_t begin, std::uint64_t end) {
  State& s = *state_;
  if (s.points.empty()) throw std::runtime_error("No flush blocks available");
  const auto find = [&](std::uint64_t plain) -> const FlushPoint* {
    const auto at = std::lower_bound(
        s.points.begin(), s.points.end(), plain,
        [](const FlushPoint& point, std::uint64_t value) { return point.plain_offset < value; });
    return at != s.points.end() && at->plain_offset == plain ? &*at : nullptr;
  };
  const FlushPoint* first = find(begin);
  const FlushPoint* last = find(end);
  if (begin >= end || first == nullptr || last == nullptr) {
    throw std::runtime_error(
        "Requested range is not flush point aligned, empty or has not yet been written");
  }
  s.ensure_in_file(last->stored_offset);
  std::vector<std::byte> bytes(last->stored_offset - first->stored_offset);
  const std::uint64_t here = s.file.tell();
  s.read_stored(first->stored_offset, bytes);
  // While writing, the file position stays at the end of what is written.
  if (s.writing) seek_exactly(s.file, here);
  return bytes;
}

void ZlibSegment::verify() {
  State& s = *state_;
  s.require_reading();
  if (s.points.empty()) {
    s.verify_stream();
  } else {
    s.verify_blocks();
  }
}

std::uint64_t ZlibSegment::blocks_inflated() const { return state_->blocks_inflated; }

}  // namespace Tarn::bf::internal

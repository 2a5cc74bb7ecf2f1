// Damaged TBF files. Good files are written through the library, then damaged byte by byte:
// cut short at every boundary of their headers and at every byte of their front, bytes flipped
// with a fixed seed, and targeted patches of magic, versions, chain links, ranks, lengths,
// metadata positions, element types and stack records. Each damaged file is opened in read and
// in append mode and every stack is read in full. Accepted are success and TarnError,
// std::runtime_error or std::invalid_argument with a clear message (the documented one where
// there is one); anything else escapes and fails the test. A stack that opens must lie within
// the file with exactly as many data bytes as its elements need, so that no reader allocates
// more than the file holds; a hang ends the binary through the watchdog alarm.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <ostream>
#include <random>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/stack_record.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/bf/stack_imp.h"
#include "tarnio/errors/tarn_error.h"
#include "tarnio/json/value.h"
#include "tarnio/props/prop.h"
#include "tarnio/testing/file_bytes.h"
#include "tarnio/testing/temp_dir.h"

namespace Tarn::bf {
namespace {

namespace fs = std::filesystem;
namespace dt = Tarn::dt;
using namespace internal;
using Bytes = std::vector<std::byte>;
using Mode = DiskFile::Mode;
using Tarn::testing::TempDir;

// Seconds a test may run before the alarm ends the binary: a reader that loops on a damaged
// file shows as "Alarm clock" instead of a test that never ends.
constexpr unsigned kWatchdogSeconds = 300;
// The most findings a test prints; the count of all of them is printed too.
constexpr std::size_t kShownFindings = 25;

// Where the parts of a good file lie, found from its bytes without the library.

struct StackLayout {
  std::uint64_t position = 0;
  std::uint64_t name_position = 0;
  std::uint64_t description_position = 0;
  std::uint64_t data_position = 0;
  std::uint64_t data_length = 0;
  // Behind the data; record_length is 0 when the stack has no record.
  std::uint64_t record_position = 0;
  std::uint64_t record_length = 0;
};

struct FileLayout {
  std::uint32_t version = 0;
  std::uint64_t header_end = 0;
  // 0 for version 1.
  std::uint64_t metadata_field = 0;
  std::uint64_t metadata_position = 0;
  // The position of each key length of the metadata block, the end mark last.
  std::vector<std::uint64_t> metadata_entries;
  std::vector<StackLayout> stacks;
};

std::uint32_t u32_at(const Bytes& bytes, std::uint64_t at) {
  if (at > bytes.size() || bytes.size() - at < 4) throw std::out_of_range("good file too short");
  return get_u32(bytes, at);
}

std::uint64_t u64_at(const Bytes& bytes, std::uint64_t at) {
  if (at > bytes.size() || bytes.size() - at < 8) throw std::out_of_range("good file too short");
  return get_u64(bytes, at);
}

FileLayout parse_layout(const Bytes& bytes) {
  FileLayout layout;
  layout.version = u32_at(bytes, kFileVersionOffset);
  layout.header_end = kFileDescriptionOffset + u32_at(bytes, kFileDescriptionLengthOffset);
  if (layout.version >= kFirstVersionWithMetadata) {
    layout.metadata_field = layout.header_end;
    layout.metadata_position = u64_at(bytes, layout.metadata_field);
    layout.header_end += 8;
  }
  for (std::uint64_t at = u64_at(bytes, kFirstStackOffset); at != 0;
       at = u64_at(bytes, at + kNextStackOffset)) {
    StackLayout s;
    s.position = at;
    s.name_position = at + kStackHeaderSize;
    s.description_position = s.name_position + u32_at(bytes, at + kNameLengthOffset);
    s.data_position = s.description_position + u32_at(bytes, at + kDescriptionLengthOffset);
    s.data_length = u64_at(bytes, at + kDataLengthOffset);
    s.record_position = s.data_position + s.data_length;
    if (has_bytes(bytes, s.record_position, kRecordMagic)) {
      s.record_length = u64_at(bytes, s.record_position + kRecordLengthOffset);
    }
    layout.stacks.push_back(s);
  }
  if (layout.metadata_position != 0) {
    std::uint64_t at = layout.metadata_position;
    for (;;) {
      layout.metadata_entries.push_back(at);
      const std::uint32_t key_length = u32_at(bytes, at);
      if (key_length == 0) break;
      at += 4 + key_length;
      at += 4 + u32_at(bytes, at);
    }
  }
  return layout;
}

// Every position at which a reader moves from one part of the file to the next.
std::vector<std::uint64_t> boundaries(const FileLayout& layout, std::uint64_t file_size) {
  std::vector<std::uint64_t> cuts{kFileMagic.size(), kFileVersionOffset + 4, kFirstStackOffset + 8,
                                  kFileDescriptionOffset, layout.header_end};
  if (layout.metadata_field != 0) cuts.push_back(layout.metadata_field);
  for (const StackLayout& s : layout.stacks) {
    for (const std::uint64_t offset :
         {std::uint64_t{0}, std::uint64_t{kStackMagic.size()}, std::uint64_t{kRankOffset},
          std::uint64_t{kTypeOffset}, std::uint64_t{kDataLengthOffset},
          std::uint64_t{kNextStackOffset}, std::uint64_t{kStackHeaderSize}}) {
      cuts.push_back(s.position + offset);
    }
    cuts.insert(cuts.end(), {s.description_position, s.data_position,
                             s.data_position + s.data_length / 2, s.record_position});
    if (s.record_length != 0) {
      cuts.insert(cuts.end(),
                  {s.record_position + kRecordEntriesOffset,
                   s.record_position + s.record_length - 1, s.record_position + s.record_length});
    }
  }
  cuts.insert(cuts.end(), layout.metadata_entries.begin(), layout.metadata_entries.end());
  cuts.push_back(file_size - 1);
  std::vector<std::uint64_t> inside;
  std::copy_if(cuts.begin(), cuts.end(), std::back_inserter(inside),
               [&](std::uint64_t cut) { return cut < file_size; });
  std::sort(inside.begin(), inside.end());
  inside.erase(std::unique(inside.begin(), inside.end()), inside.end());
  return inside;
}

// Good files.

Bytes read_bytes(const fs::path& path) { return Tarn::testing::read_file_bytes<Bytes>(path); }
using Tarn::testing::write_file_bytes;

template <class T>
std::vector<T> ramp(std::size_t count, double scale) {
  std::vector<T> values(count);
  for (std::size_t i = 0; i < count; ++i)
    values[i] = static_cast<T>(scale * static_cast<double>(i));
  return values;
}

// Five stacks of different types, names, descriptions and tags, one of them without data, a
// file description and metadata entries besides the OME-XML.
void write_acquisition(const fs::path& path) {
  auto file = Tarn::create_file();
  file->open(path, Mode::write);
  file->set_description("Damaged-file test: cells, ratio, impulse response, mask, indices.");
  file->set_metadata("acquisition", R"({"objective":"63x/1.4","lasers_nm":[488,561]})");
  file->set_metadata("operator", "A. N. Other");

  auto cells = file->add_stack(dt::uint16, {8, 6, 3});
  cells->set_name("cells");
  cells->set_description("three planes of 8 x 6 pixels");
  cells->set_lengths({0.8, 0.6, 1.5});
  cells->set_labels({"x", "y", "z"});
  cells->set_tag("objective", TProp("63x/1.4"));
  cells->set_tag("kalix", JSON::Value::object({{"version", 1}, {"files", JSON::Value::list()}}));
  const auto cell_values = ramp<std::uint16_t>(8 * 6 * 3, 257.0);
  cells->write(std::span<const std::uint16_t>(cell_values));
  cells->commit();

  auto ratio = file->add_stack(dt::single, {5, 4});
  const auto ratio_values = ramp<float>(5 * 4, 0.125);
  ratio->write(std::span<const float>(ratio_values));
  ratio->commit();

  auto impulse = file->add_stack(dt::cplx_double, {3});
  impulse->set_name("impulse response");
  impulse->set_description("µs");
  const std::vector<std::complex<double>> impulse_values{{1.0, -1.0}, {0.5, 0.25}, {-2.0, 3.5}};
  impulse->write(std::span<const std::complex<double>>(impulse_values));
  impulse->commit();

  auto mask = file->add_stack(dt::uint8, {16, 16});
  mask->set_name("mask outline");
  mask->set_tag("source", TProp("drawn by hand"));
  mask->set_no_data(true);
  mask->commit();

  auto indices = file->add_stack(dt::int64, {2, 3});
  indices->set_name("indices");
  const std::vector<std::int64_t> index_values{-1, 0, 1, 1LL << 40, -(1LL << 40), 7};
  indices->write(std::span<const std::int64_t>(index_values));
  indices->commit();
  file->close();
}

// One small stack of every element type that has a size, in the library's own file.
void write_every_type(const fs::path& path) {
  auto file = Tarn::create_file(false);
  file->open(path, Mode::write);
  for (const DataType type :
       {dt::uint8, dt::int8, dt::uint16, dt::int16, dt::uint32, dt::int32, dt::uint64, dt::int64,
        dt::single, dt::double_, dt::cplx_single, dt::cplx_double, dt::rgb, dt::rgb32}) {
    const std::size_t size = tarn_dt_get_size(type);
    auto stack = file->add_stack(type, {3, 2});
    stack->set_name(tarn_dt_get_name(type));
    std::vector<std::byte> bytes(6 * size);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(i % 7);
    stack->write(bytes.data(), bytes.size());
    stack->commit();
  }
  file->close();
}

Bytes written_by(void (*writer)(const fs::path&)) {
  TempDir dir;
  writer(dir / "good.tbf");
  return read_bytes(dir / "good.tbf");
}

const Bytes& acquisition() {
  static const Bytes bytes = written_by(write_acquisition);
  return bytes;
}

// A file that header version 1 describes: no metadata field behind the description (the first
// stack follows it directly) and no metadata block; every link moves 8 bytes forward.
Bytes to_version_1(const Bytes& good) {
  const FileLayout layout = parse_layout(good);
  Bytes bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(layout.metadata_field));
  bytes.insert(bytes.end(), good.begin() + static_cast<std::ptrdiff_t>(layout.header_end),
               good.begin() + static_cast<std::ptrdiff_t>(layout.metadata_position));
  put_u32(bytes, kFileVersionOffset, 1);
  const auto moved = [](std::uint64_t at) { return at == 0 ? at : at - 8; };
  put_u64(bytes, kFirstStackOffset, moved(u64_at(good, kFirstStackOffset)));
  for (const StackLayout& s : layout.stacks) {
    const std::uint64_t link = moved(s.position) + kNextStackOffset;
    put_u64(bytes, link, moved(u64_at(bytes, link)));
  }
  return bytes;
}

const Bytes& acquisition_v1() {
  static const Bytes bytes = to_version_1(acquisition());
  return bytes;
}

// Opening and reading.

enum class Kind { ok, tarn_error, runtime_error, invalid_argument };

const char* kind_name(Kind kind) {
  switch (kind) {
    case Kind::ok:
      return "success";
    case Kind::tarn_error:
      return "TarnError";
    case Kind::runtime_error:
      return "std::runtime_error";
    case Kind::invalid_argument:
      return "std::invalid_argument";
  }
  return "?";
}

struct Outcome {
  Kind kind = Kind::ok;
  std::string message;
  std::size_t stacks = 0;
  // Whether open_file succeeded; a later read or close may still have failed.
  bool opened = false;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  out << kind_name(outcome.kind);
  if (outcome.kind == Kind::ok) return out << " with " << outcome.stacks << " stacks";
  return out << " \"" << outcome.message << '"';
}

// Checks that a stack that opened lies within the file, then reads all of its samples and its
// last one alone.
void read_stack(StackImp& stack, std::size_t index, std::uint64_t file_size,
                std::vector<std::string>& findings) {
  const std::string which = "stack " + std::to_string(index) + ": ";
  if (!stack.has_data()) {
    if (stack.data_length() != 0) findings.push_back(which + "no data but a data length");
    return;
  }
  const std::uint64_t position = stack.data_position();
  const std::uint64_t length = stack.data_length();
  if (position > file_size || length > file_size - position) {
    findings.push_back(which + "data of " + std::to_string(length) + " bytes at " +
                       std::to_string(position) + " in a file of " + std::to_string(file_size));
    return;
  }
  const std::uint64_t size = tarn_dt_get_size(stack.type());
  const std::uint64_t count = stack.number_of_elements();
  if (stack.compression() == StackImp::Compression::none &&
      (size == 0 || count > length / size || count * size != length)) {
    findings.push_back(which + std::to_string(count) + " elements of type " +
                       std::to_string(stack.type()) + " in " + std::to_string(length) +
                       " bytes of plain data");
    return;
  }
  // A compressed stack may hold more than its bytes; 64 MiB is far beyond any file here.
  if (size == 0 || count > (std::uint64_t{64} << 20) / size) return;
  Bytes buffer(count * size);
  if (stack.read(0, count, buffer.data()) != StackImp::kNpos) {
    findings.push_back(which + "reading every sample did not end the data");
  }
  stack.read(count - 1, 1, buffer.data());
}

// Opens the file, reads every stack, and closes it (an appending file writes its metadata).
Outcome open_and_read(const fs::path& path, Mode mode, std::vector<std::string>& findings) {
  Outcome outcome;
  try {
    const auto file = Tarn::open_file(path, mode);
    outcome.opened = true;
    const std::uint64_t file_size = file->file_size();
    outcome.stacks = file->number_of_stacks();
    for (std::size_t i = 0; i < outcome.stacks; ++i) {
      read_stack(*file->stack(i), i, file_size, findings);
    }
    file->close();
    return outcome;
  } catch (const TarnError& error) {
    outcome.kind = Kind::tarn_error;
    outcome.message = error.message();
  } catch (const std::invalid_argument& error) {
    outcome.kind = Kind::invalid_argument;
    outcome.message = error.what();
  } catch (const std::runtime_error& error) {
    outcome.kind = Kind::runtime_error;
    outcome.message = error.what();
  }
  if (outcome.message.empty() || outcome.message.back() != '.') {
    findings.push_back("unclear message \"" + outcome.message + "\"");
  }
  return outcome;
}

// Appends a small stack to a file that opened with `stacks` stacks; the file must then read
// with one stack more, the new one last and intact.
void append_stack(const fs::path& path, std::size_t stacks, std::vector<std::string>& findings) {
  const std::vector<std::int16_t> values{-7, 0, 7};
  try {
    {
      const auto file = Tarn::open_file(path, Mode::append);
      const auto stack = file->add_stack(dt::int16, {3});
      stack->set_name("appended");
      stack->write(std::span<const std::int16_t>(values));
      stack->commit();
      file->close();
    }
    const auto file = Tarn::open_file(path, Mode::read);
    if (file->number_of_stacks() != stacks + 1) {
      findings.push_back("after appending a stack to " + std::to_string(stacks) + " the file has " +
                         std::to_string(file->number_of_stacks()));
      return;
    }
    std::vector<std::int16_t> back(values.size());
    const auto stack = file->stack(stacks);
    stack->read(0, std::span<std::int16_t>(back));
    if (stack->name() != "appended" || back != values) {
      findings.push_back("the appended stack reads back otherwise");
    }
  } catch (const TarnError& error) {
    findings.push_back("appending a stack failed: " + error.message());
  } catch (const std::exception& error) {
    findings.push_back(std::string("appending a stack failed: ") + error.what());
  }
}

struct Trial {
  Outcome read;
  std::vector<std::string> findings;
};

// Runs one damaged file at `path`: read mode, then append mode, which must give the same
// outcome. An append open that fails leaves the file untouched; one that succeeds, closed
// without adding anything, leaves a file that reads again with the same stacks, and then takes
// one stack more.
Trial run_file(const fs::path& path, const Bytes& bytes) {
  Trial run;
  write_file_bytes(path, bytes);
  run.read = open_and_read(path, Mode::read, run.findings);
  const Outcome append = open_and_read(path, Mode::append, run.findings);
  if (append.kind != run.read.kind || append.message != run.read.message) {
    std::ostringstream text;
    text << "read mode gave " << run.read << ", append mode " << append;
    run.findings.push_back(text.str());
  }
  if (!append.opened && read_bytes(path) != bytes) {
    run.findings.push_back("a failed append open changed the file");
  }
  if (append.kind != Kind::ok) return run;
  const Outcome again = open_and_read(path, Mode::read, run.findings);
  if (again.kind != Kind::ok || again.stacks != append.stacks) {
    std::ostringstream text;
    text << "after appending nothing the file reads as " << again;
    run.findings.push_back(text.str());
    return run;
  }
  append_stack(path, append.stacks, run.findings);
  return run;
}

// Expectations.

enum class Expect { opens, fails, anything };

struct Expected {
  Expect expect = Expect::anything;
  Kind kind = Kind::ok;
  // Empty: any clear message. With prefix set, the message starts with it.
  std::string message;
  bool prefix = false;
  std::size_t stacks = 0;
};

Expected opens(std::size_t stacks) { return {Expect::opens, Kind::ok, "", false, stacks}; }
Expected fails() { return {Expect::fails, Kind::ok, "", false, 0}; }
Expected fails_with(Kind kind, std::string message) {
  return {Expect::fails, kind, std::move(message), false, 0};
}
Expected fails_starting(Kind kind, std::string prefix) {
  return {Expect::fails, kind, std::move(prefix), true, 0};
}
Expected anything() { return {}; }

// What went wrong with `outcome` against `expected`; empty when nothing did.
std::string mismatch(const Outcome& outcome, const Expected& expected) {
  std::ostringstream text;
  switch (expected.expect) {
    case Expect::anything:
      return "";
    case Expect::opens:
      if (outcome.kind == Kind::ok && outcome.stacks == expected.stacks) return "";
      text << "expected success with " << expected.stacks << " stacks, got " << outcome;
      return text.str();
    case Expect::fails:
      break;
  }
  if (outcome.kind == Kind::ok) {
    text << "expected an error, got " << outcome;
    return text.str();
  }
  if (expected.message.empty()) return "";
  const bool same_text = expected.prefix ? outcome.message.starts_with(expected.message)
                                         : outcome.message == expected.message;
  if (outcome.kind == expected.kind && same_text) return "";
  text << "expected " << kind_name(expected.kind) << " \"" << expected.message
       << (expected.prefix ? "...\"" : "\"") << ", got " << outcome;
  return text.str();
}

struct Variant {
  std::string name;
  Bytes bytes;
  Expected expected;
};

// Where the damaged files go: in memory (/dev/shm) where the system has it, since every close
// of a file opened for appending flushes it to its device, and thousands are; in the temporary
// directory otherwise.
fs::path scratch_base() {
  std::error_code error;
  if (fs::is_directory("/dev/shm", error) && ::access("/dev/shm", W_OK) == 0) return "/dev/shm";
  return fs::temp_directory_path();
}

// Collects the findings of many variants and reports them at the end of a test.
class Findings {
 public:
  void add(const std::string& variant, const std::string& finding) {
    if (count_++ < kShownFindings) ADD_FAILURE() << variant << ": " << finding;
  }
  void add_all(const std::string& variant, const Trial& run) {
    for (const std::string& finding : run.findings) add(variant, finding);
  }
  ~Findings() {
    if (count_ > kShownFindings) {
      ADD_FAILURE() << count_ << " findings, the first " << kShownFindings << " shown";
    }
  }

 private:
  std::size_t count_ = 0;
};

void run_variants(const std::vector<Variant>& variants) {
  const TempDir dir(scratch_base());
  Findings findings;
  for (const Variant& variant : variants) {
    const Trial run = run_file(dir / "damaged.tbf", variant.bytes);
    findings.add_all(variant.name, run);
    const std::string wrong = mismatch(run.read, variant.expected);
    if (!wrong.empty()) findings.add(variant.name, wrong);
  }
}

// The damage.

Bytes patched_u32(Bytes bytes, std::uint64_t at, std::uint32_t value) {
  put_u32(bytes, at, value);
  return bytes;
}

Bytes patched_u64(Bytes bytes, std::uint64_t at, std::uint64_t value) {
  put_u64(bytes, at, value);
  return bytes;
}

Bytes patched_byte(Bytes bytes, std::uint64_t at, std::uint8_t value) {
  bytes[at] = std::byte{value};
  return bytes;
}

Bytes truncated(const Bytes& bytes, std::uint64_t size) {
  return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
}

// The position of the value of the first entry with `key` in the record of `s`.
std::uint64_t record_entry(const Bytes& bytes, const StackLayout& s, RecordKey key) {
  std::uint64_t at = s.record_position + kRecordEntriesOffset;
  while (at < s.record_position + s.record_length) {
    if (u32_at(bytes, at) == static_cast<std::uint32_t>(key)) return at + kRecordEntryHeaderSize;
    at += kRecordEntryHeaderSize + u64_at(bytes, at + 4);
  }
  throw std::out_of_range("record entry missing");
}

// Damage at the places where a reader decides, each with what it must give.
std::vector<Variant> targeted_variants() {
  const Bytes& good = acquisition();
  const FileLayout layout = parse_layout(good);
  const std::uint64_t size = good.size();
  const std::size_t n = layout.stacks.size();
  const StackLayout& cells = layout.stacks[0];
  const StackLayout& ratio = layout.stacks[1];
  const StackLayout& last = layout.stacks.back();
  const std::uint64_t cells_at = cells.position;
  const std::uint64_t metadata = layout.metadata_field;
  const Kind tarn = Kind::tarn_error;
  const Kind runtime = Kind::runtime_error;
  const Expected no_header = fails_with(runtime, "No TBF file header found.");
  const Expected bad_position = fails_with(runtime, "Invalid stack position specified in header.");
  const Expected not_a_stack = fails_with(tarn, "Stack header not in TBF format.");
  const Expected refused = fails_with(tarn, "Cannot set data layout.");
  const Expected metadata_behind_end =
      fails_with(tarn, "Damaged metadata block: it starts behind the end of the file.");
  const Expected metadata_cut =
      fails_with(tarn, "Damaged metadata block: the file ends before its end mark.");
  const Expected damaged_metadata = fails_starting(tarn, "Damaged metadata block: ");
  const Expected too_short =
      fails_with(tarn, "Failed reading 4294967295 bytes from file: File too short.");
  const Expected failed_reading = fails_starting(tarn, "Failed reading ");
  const Expected shape_mismatch = fails_with(tarn, "Stack data length does not match its shape.");
  const Expected data_behind_end = fails_with(tarn, "Stack data lies beyond the end of the file.");
  const Expected damaged_record = fails_starting(tarn, "Damaged stack record: ");
  const auto version_needed = [&](const std::string& version) {
    return fails_with(
        tarn, "Cannot read stack with file format reader version 7. Need >= " + version + ".");
  };

  std::vector<Variant> v;
  const auto add = [&](std::string name, Bytes bytes, Expected expected) {
    v.push_back({std::move(name), std::move(bytes), std::move(expected)});
  };
  const auto u32 = [&](std::string name, std::uint64_t at, std::uint32_t value, Expected e) {
    add(std::move(name), patched_u32(good, at, value), std::move(e));
  };
  const auto u64 = [&](std::string name, std::uint64_t at, std::uint64_t value, Expected e) {
    add(std::move(name), patched_u64(good, at, value), std::move(e));
  };
  const auto byte = [&](std::string name, std::uint64_t at, std::uint8_t value, Expected e) {
    add(std::move(name), patched_byte(good, at, value), std::move(e));
  };
  const auto to_end = [&](std::uint64_t from) { return static_cast<std::uint32_t>(size - from); };

  // The file header.
  add("empty_file", {}, no_header);
  add("nine_bytes", truncated(good, 9), no_header);
  byte("magic_first_byte", 0, 'X', no_header);
  byte("magic_newline", 7, '\r', no_header);
  byte("magic_first_ff", 8, 0xFE, no_header);
  byte("magic_second_ff", 9, 0x00, no_header);
  add("stack_magic_as_file_magic",
      Bytes(good.begin() + static_cast<std::ptrdiff_t>(cells_at), good.end()), no_header);
  for (const std::uint32_t version : {0u, 3u, 0xFFFFFFFFu}) {
    u32("version_" + std::to_string(version), kFileVersionOffset, version,
        fails_with(tarn, "Unsupported TBF file format version " + std::to_string(version) + "."));
  }
  // A version-2 file read as version 1 has no metadata field: its first stack is found by
  // position all the same, and its metadata block is not read.
  u32("version_2_as_1", kFileVersionOffset, 1, opens(n));
  // A version-1 file read as version 2 takes the first 8 bytes of its first stack for the
  // metadata position.
  add("version_1_as_2", patched_u32(acquisition_v1(), kFileVersionOffset, 2), metadata_behind_end);
  u32("description_length_all_ones", kFileDescriptionLengthOffset, 0xFFFFFFFF, too_short);
  u32("description_length_to_end", kFileDescriptionLengthOffset, to_end(kFileDescriptionOffset) + 1,
      failed_reading);

  // The metadata block.
  u64("metadata_position_0", metadata, 0,
      fails_with(runtime, "File incomplete. Metadata missing."));
  u64("metadata_position_at_end", metadata, size, metadata_cut);
  u64("metadata_position_behind_end", metadata, size + 1, metadata_behind_end);
  u64("metadata_position_2_pow_62", metadata, std::uint64_t{1} << 62, metadata_behind_end);
  u64("metadata_position_all_ones", metadata, ~0ULL, metadata_behind_end);
  u64("metadata_position_in_header", metadata, 1,
      fails_with(tarn, "Damaged metadata block: it starts inside the file header."));
  u32("metadata_key_length_all_ones", layout.metadata_position, 0xFFFFFFFF,
      fails_with(tarn, "Damaged metadata block: key of 4294967295 bytes at position " +
                           std::to_string(layout.metadata_position + 4) +
                           " runs past the end of the file."));
  u32("metadata_key_length_to_end", layout.metadata_position, to_end(layout.metadata_position) - 3,
      damaged_metadata);
  u32("metadata_value_length_all_ones",
      layout.metadata_position + 4 + u32_at(good, layout.metadata_position), 0xFFFFFFFF,
      fails_starting(tarn, "Damaged metadata block: value of 4294967295 bytes"));
  add("metadata_end_mark_missing", truncated(good, size - 4), metadata_cut);
  add("metadata_end_mark_cut", truncated(good, size - 1), metadata_cut);
  {
    // A block whose second entry repeats the first key.
    Bytes bytes = truncated(good, layout.metadata_position);
    for (const char* text : {"a", "1", "a", "2"}) {
      Bytes entry(4);
      put_u32(entry, 0, 1);
      entry.push_back(static_cast<std::byte>(text[0]));
      bytes.insert(bytes.end(), entry.begin(), entry.end());
    }
    bytes.insert(bytes.end(), 4, std::byte{0});
    add("metadata_key_twice", bytes,
        fails_with(tarn, "Damaged metadata block: the key 'a' appears twice."));
  }
  {
    Bytes bytes = good;
    bytes.insert(bytes.end(), 1000, std::byte{0xEE});
    add("trailing_bytes", bytes, opens(n));
  }
  u64("metadata_on_stack_record", metadata, ratio.record_position, anything());

  // The chain.
  const std::uint64_t cells_link = cells_at + kNextStackOffset;
  u64("first_stack_0", kFirstStackOffset, 0, opens(0));
  u64("first_stack_behind_end", kFirstStackOffset, size + 100, bad_position);
  u64("first_stack_all_ones", kFirstStackOffset, ~0ULL, bad_position);
  u64("first_stack_near_end", kFirstStackOffset, size - 10, bad_position);
  u64("first_stack_in_header", kFirstStackOffset, 10, bad_position);
  u64("first_stack_in_metadata", kFirstStackOffset, layout.metadata_position + 4, bad_position);
  u64("first_stack_to_second", kFirstStackOffset, ratio.position, opens(n - 1));
  u64("chain_loops_to_first", last.position + kNextStackOffset, cells_at, bad_position);
  u64("chain_loops_to_itself", ratio.position + kNextStackOffset, ratio.position, bad_position);
  u64("chain_loops_back_one", layout.stacks[2].position + kNextStackOffset, ratio.position,
      bad_position);
  u64("chain_behind_end", cells_link, size + 1, bad_position);
  u64("chain_all_ones", cells_link, ~0ULL, bad_position);
  u64("chain_into_own_data", cells_link, cells.data_position, bad_position);
  // Bytes that no stack read so far occupies, but no stack header either.
  u64("chain_into_later_data", cells_link, ratio.data_position, not_a_stack);
  u64("chain_ends_early", cells_link, 0, opens(1));

  // The stack header.
  byte("stack_magic", ratio.position, 't', not_a_stack);
  byte("stack_magic_ff", ratio.position + 15, 0x7F, not_a_stack);
  u32("rank_16", cells_at + kRankOffset, 16, refused);
  u32("rank_all_ones", cells_at + kRankOffset, 0xFFFFFFFF, refused);
  u32("rank_below_sizes", cells_at + kRankOffset, 2, refused);
  u32("size_all_ones", cells_at + kSizesOffset, 0xFFFFFFFF, shape_mismatch);
  u32("size_doubled", cells_at + kSizesOffset, 16, shape_mismatch);
  u32("size_0", cells_at + kSizesOffset, 0, shape_mismatch);
  u32("type_unknown_3", cells_at + kTypeOffset, 3, refused);
  u32("type_unknown_bit", cells_at + kTypeOffset, 0x100000, refused);
  u32("type_none", cells_at + kTypeOffset, 0, refused);
  u32("type_array_flag", cells_at + kTypeOffset, 0x80000000u | dt::uint16, refused);
  u32("type_cplx_uint16", cells_at + kTypeOffset, static_cast<std::uint32_t>(dt::cplx_uint16),
      refused);
  u32("type_wider", cells_at + kTypeOffset, dt::uint32, shape_mismatch);
  u32("type_same_size", cells_at + kTypeOffset, dt::int16, opens(n));
  u32("type_of_dataless_unknown", layout.stacks[3].position + kTypeOffset, 3, refused);
  u32("compression_2", cells_at + kCompressionTypeOffset, 2,
      fails_with(tarn, "Invalid compression type specified."));
  u32("compression_zlib_on_plain", cells_at + kCompressionTypeOffset, 1, anything());
  u32("name_length_all_ones", cells_at + kNameLengthOffset, 0xFFFFFFFF, too_short);
  u32("name_length_to_end", last.position + kNameLengthOffset, to_end(last.name_position) + 1,
      failed_reading);
  u32("description_length_all_ones_in_stack", cells_at + kDescriptionLengthOffset, 0xFFFFFFFF,
      too_short);
  u64("data_flag_0_with_data", cells_at + kDataFlagOffset, 0, opens(n));
  u64("data_length_0_with_data", cells_at + kDataLengthOffset, 0,
      fails_with(tarn, "Stack data missing: the stack was never committed."));
  u64("data_length_file_size", cells_at + kDataLengthOffset, size, data_behind_end);
  u64("data_length_all_ones", cells_at + kDataLengthOffset, ~0ULL, data_behind_end);
  u64("data_length_2_pow_40", last.position + kDataLengthOffset, std::uint64_t{1} << 40,
      data_behind_end);
  u64("data_length_one_past_end", last.position + kDataLengthOffset, size - last.data_position + 1,
      data_behind_end);
  u64("data_length_one_short", cells_at + kDataLengthOffset, cells.data_length - 1, shape_mismatch);
  u64("data_length_one_more", cells_at + kDataLengthOffset, cells.data_length + 1, shape_mismatch);
  u64("data_length_on_dataless", layout.stacks[3].position + kDataLengthOffset, 255,
      shape_mismatch);
  {
    // 40 x 107367629 x 536903681 doubles are 2^64 + 64 bytes: 64 in 64-bit arithmetic; no
    // layout can hold them.
    Bytes bytes = patched_u32(good, cells_at + kTypeOffset, dt::double_);
    put_u32(bytes, cells_at + kSizesOffset, 40);
    put_u32(bytes, cells_at + kSizesOffset + 4, 107367629);
    put_u32(bytes, cells_at + kSizesOffset + 8, 536903681);
    put_u64(bytes, cells_at + kDataLengthOffset, 64);
    add("element_bytes_wrap", bytes, refused);
    for (std::uint64_t i = 0; i < 3; ++i) put_u32(bytes, cells_at + kSizesOffset + 4 * i, ~0u);
    add("sizes_product_overflows", bytes, refused);
  }
  u64("length_nan", cells_at + kLengthsOffset, 0x7FF8000000000001ULL, opens(n));
  u64("offset_infinite", ratio.position + kOffsetsOffset + 8, 0xFFF0000000000000ULL, opens(n));

  // The stack record.
  const std::uint64_t cells_reader = record_entry(good, cells, RecordKey::minimum_reader_version);
  u32("minimum_reader_version_8", cells_reader, 8, version_needed("8"));
  u32("minimum_reader_version_huge", record_entry(good, ratio, RecordKey::minimum_reader_version),
      0xFFFFFFFE, version_needed("4294967294"));
  // All ones is the mark of a stack without a minimum; older versions are read.
  u32("minimum_reader_version_none", cells_reader, 0xFFFFFFFF, opens(n));
  u32("minimum_reader_version_1", cells_reader, 1, opens(n));
  const std::uint64_t cells_record_length = cells.record_position + kRecordLengthOffset;
  u64("record_length_behind_end", cells_record_length, size, damaged_record);
  u64("record_length_all_ones", cells_record_length, ~0ULL, damaged_record);
  u64("record_length_too_small", cells_record_length, 3, damaged_record);
  u64("record_entry_length_all_ones", cells.record_position + kRecordEntriesOffset + 4, ~0ULL,
      damaged_record);
  byte("stack_info_not_json", record_entry(good, cells, RecordKey::stack_info), '#',
       fails_starting(tarn, "Damaged stack info: "));
  {
    // The record of the last stack cut out: a stack without record is read.
    Bytes bytes = truncated(good, last.record_position);
    bytes.insert(
        bytes.end(),
        good.begin() + static_cast<std::ptrdiff_t>(last.record_position + last.record_length),
        good.end());
    put_u64(bytes, metadata, layout.metadata_position - last.record_length);
    add("record_missing", bytes, opens(n));
  }
  return v;
}

// The acquisition with the record of its last stack (int64, 2 x 3) replaced by `record`.
Bytes with_last_record(const StackRecord& record) {
  const Bytes& good = acquisition();
  const FileLayout layout = parse_layout(good);
  const StackLayout& last = layout.stacks.back();
  const std::string encoded = encode_stack_record(record);
  const std::uint64_t after = last.record_position + last.record_length;
  Bytes bytes = truncated(good, last.record_position);
  std::transform(encoded.begin(), encoded.end(), std::back_inserter(bytes),
                 [](char c) { return static_cast<std::byte>(c); });
  bytes.insert(bytes.end(), good.begin() + static_cast<std::ptrdiff_t>(after), good.end());
  put_u64(bytes, layout.metadata_field,
          layout.metadata_position - after + bytes.size() - (good.size() - after));
  return bytes;
}

std::string u32_text(std::uint32_t value) {
  std::string text(4, '\0');
  put_u32(std::as_writable_bytes(std::span(text)), 0, value);
  return text;
}

StackRecord info_record(std::string json) {
  StackRecord record;
  record.add(RecordKey::minimum_reader_version, u32_text(kReaderVersion));
  record.add(RecordKey::stack_info, std::move(json));
  return record;
}

// Stack infos and records that a writer of this library never makes, in the last stack.
std::vector<Variant> crafted_records() {
  const Kind tarn = Kind::tarn_error;
  const std::string damaged = "Damaged stack info: ";
  // Deeper than the JSON reader goes.
  const std::string deep_lists = std::string(12000, '[') + std::string(12000, ']');
  const std::string deep_prop = std::string(1001, '[') + "1" + std::string(1001, ']');
  const std::string huge_prop =
      R"({"#type": "uint8", "#size": [4294967296, 4294967296], "#data": []})";
  std::vector<Variant> v;
  const auto info = [&](std::string name, std::string json, Expected expected) {
    v.push_back({std::move(name), with_last_record(info_record(std::move(json))), expected});
  };
  info("info_empty_text", "", fails_starting(tarn, damaged));
  info("info_number", "5", fails_starting(tarn, damaged));
  info("info_deep_lists", deep_lists, fails_starting(tarn, damaged));
  info("info_empty_object", "{}", opens(5));
  info("info_unknown_member", R"({"later": [1, 2]})", opens(5));
  info("axes_not_a_list", R"({"axes": 5})", fails_starting(tarn, damaged));
  info("axes_one_too_many", R"({"axes": [{}, {}, {}]})", fails_starting(tarn, damaged));
  info("col_positions_too_many", R"({"axes": [{"col_positions": [1, 2, 3]}, {}]})",
       fails_starting(tarn, damaged));
  info("col_label_not_text", R"({"axes": [{"col_labels": ["a", 7]}, {}]})",
       fails_starting(tarn, damaged));
  info("xy_position_short", R"({"axes": [{"xy_col_positions": [[1], [2, 3]]}, {}]})",
       fails_starting(tarn, damaged));
  info("unit_unknown", R"({"axes": [{"unit": "furlong per fortnight?"}, {}]})",
       fails_starting(tarn, damaged));
  info("label_not_utf8", "{\"axes\": [{\"label\": \"\xff\xfe\"}, {}]}", anything());
  info("data_unit_number", R"({"data_unit": 7})", fails_starting(tarn, damaged));
  info("data_unit_huge_power", R"({"data_unit": "m^99999999999999999999"})", anything());
  info("timestamp_huge", R"({"timestamp": 1e300})", fails_starting(tarn, damaged));
  info("timestamp_fraction", R"({"timestamp": 0.5})", fails_starting(tarn, damaged));
  info("timestamp_lowest", R"({"timestamp": -9223372036854775808})", opens(5));
  info("channel_huge", R"({"stack_position": {"channel": 1e20}})", fails_starting(tarn, damaged));
  info("stage_not_numbers", R"({"stack_position": {"stage_um": [1, "NaN", "x"]}})",
       fails_starting(tarn, damaged));
  info("tags_not_object", R"({"tags": 5})", fails_starting(tarn, damaged));
  info("tag_empty", R"({"tags": {"x": {}}})", fails_starting(tarn, damaged));
  info("tag_both_forms", R"({"tags": {"x": {"json": 1, "prop": 1}}})",
       fails_starting(tarn, damaged));
  info("tag_prop_huge_size", R"({"tags": {"x": {"prop": )" + huge_prop + "}}}",
       fails_starting(tarn, damaged));
  info("tag_prop_too_deep", R"({"tags": {"x": {"prop": )" + deep_prop + "}}}",
       fails_starting(tarn, damaged));
  info("tag_without_name", R"({"tags": {"": {"json": 1}}})", anything());

  const auto record = [&](std::string name,
                          std::vector<std::pair<std::uint32_t, std::string>> entries,
                          Expected expected) {
    StackRecord r;
    r.entries = std::move(entries);
    v.push_back({std::move(name), with_last_record(r), expected});
  };
  const auto reader = static_cast<std::uint32_t>(RecordKey::minimum_reader_version);
  const auto stack_info = static_cast<std::uint32_t>(RecordKey::stack_info);
  record("record_without_entries", {}, opens(5));
  record("record_unknown_entry", {{99, std::string(1000, 'x')}, {reader, u32_text(7)}}, opens(5));
  record("reader_version_1_byte", {{reader, "\x07"}},
         fails_starting(tarn, "Damaged stack record: "));
  record("reader_version_empty", {{reader, ""}}, fails_starting(tarn, "Damaged stack record: "));
  record("reader_version_8_bytes", {{reader, u32_text(7) + u32_text(0)}},
         fails_starting(tarn, "Damaged stack record: "));
  record("stack_info_twice", {{stack_info, "{}"}, {stack_info, R"({"axes": 5})"}}, anything());
  return v;
}

class DamagedFile : public ::testing::Test {
 protected:
  void SetUp() override { ::alarm(kWatchdogSeconds); }
  void TearDown() override { ::alarm(0); }
};

TEST_F(DamagedFile, GoodFilesOpenInEveryMode) {
  TempDir dir;
  const Trial v2 = run_file(dir / "v2.tbf", acquisition());
  EXPECT_TRUE(v2.findings.empty()) << ::testing::PrintToString(v2.findings);
  EXPECT_EQ(mismatch(v2.read, opens(5)), "");
  const Trial v1 = run_file(dir / "v1.tbf", acquisition_v1());
  EXPECT_TRUE(v1.findings.empty()) << ::testing::PrintToString(v1.findings);
  EXPECT_EQ(mismatch(v1.read, opens(5)), "");

  const auto file = Tarn::open_file(dir / "v1.tbf", Mode::read);
  EXPECT_EQ(file->format_version(), 1u);
  EXPECT_TRUE(file->metadata().empty());
  EXPECT_EQ(file->stack(2)->name(), "impulse response");
}

TEST_F(DamagedFile, TargetedDamageGivesItsMessage) { run_variants(targeted_variants()); }

TEST_F(DamagedFile, CraftedStackRecordsGiveClearErrors) { run_variants(crafted_records()); }

// Every cut of a version-2 file loses at least its metadata block's end mark, so none opens.
TEST_F(DamagedFile, TruncatedAnywhereFails) {
  const Bytes& good = acquisition();
  std::vector<std::uint64_t> cuts = boundaries(parse_layout(good), good.size());
  for (std::uint64_t cut = 0; cut < std::min<std::uint64_t>(400, good.size()); ++cut) {
    cuts.push_back(cut);
  }
  std::vector<Variant> variants;
  for (const std::uint64_t cut : cuts) {
    variants.push_back({"cut at " + std::to_string(cut), truncated(good, cut), fails()});
  }
  run_variants(variants);
}

// A version-1 file has no end mark to lose: cut behind a stack's data it may still open.
TEST_F(DamagedFile, TruncatedVersion1FileNeverCrashes) {
  const Bytes& good = acquisition_v1();
  std::vector<Variant> variants;
  for (const std::uint64_t cut : boundaries(parse_layout(good), good.size())) {
    variants.push_back(
        {"version 1 cut at " + std::to_string(cut), truncated(good, cut), anything()});
  }
  run_variants(variants);
}

// The positions of every byte of a good file except the entries of its stack headers beyond the
// rank: those must be 0, and a flip there only ever meets that one check.
std::vector<std::uint64_t> telling_positions(const Bytes& good) {
  std::vector<bool> unused(good.size(), false);
  for (const StackLayout& s : parse_layout(good).stacks) {
    const std::uint64_t rank = u32_at(good, s.position + kRankOffset);
    const auto mark = [&](std::uint64_t from, std::uint64_t to) {
      std::fill(unused.begin() + static_cast<std::ptrdiff_t>(s.position + from),
                unused.begin() + static_cast<std::ptrdiff_t>(s.position + to), true);
    };
    mark(kSizesOffset + 4 * rank, kLengthsOffset);
    mark(kLengthsOffset + 8 * rank, kOffsetsOffset);
    mark(kOffsetsOffset + 8 * rank, kTypeOffset);
  }
  std::vector<std::uint64_t> positions;
  for (std::uint64_t at = 0; at < good.size(); ++at) {
    if (!unused[at]) positions.push_back(at);
  }
  return positions;
}

// Flips 1 to 3 bytes at random telling places with a fixed seed; the data bytes are only a
// small part of the file, so most flips hit a header, a record or the metadata block.
std::vector<Variant> flipped(const Bytes& good, const std::string& label, std::size_t count,
                             std::uint32_t seed) {
  const std::vector<std::uint64_t> positions = telling_positions(good);
  std::mt19937 generator(seed);
  std::uniform_int_distribution<std::size_t> position(0, positions.size() - 1);
  std::uniform_int_distribution<int> flips(1, 3);
  std::uniform_int_distribution<int> value(1, 255);
  std::vector<Variant> variants;
  for (std::size_t i = 0; i < count; ++i) {
    Variant variant{label, good, anything()};
    for (int f = flips(generator); f > 0; --f) {
      const std::uint64_t at = positions[position(generator)];
      const int bits = value(generator);
      variant.bytes[at] ^= static_cast<std::byte>(bits);
      variant.name += " ^" + std::to_string(bits) + "@" + std::to_string(at);
    }
    variants.push_back(std::move(variant));
  }
  return variants;
}

TEST_F(DamagedFile, FlippedBytesNeverCrash) {
  run_variants(flipped(acquisition(), "version 2", 2000, 20240611));
  run_variants(flipped(acquisition_v1(), "version 1", 500, 7));
  run_variants(flipped(written_by(write_every_type), "every type", 500, 11));
}

// Element data is not checked by the reader: a flipped data byte opens and reads back flipped,
// and nothing else changes.
TEST_F(DamagedFile, FlippedDataByteReadsBackFlipped) {
  const Bytes& good = acquisition();
  const FileLayout layout = parse_layout(good);
  TempDir dir;
  for (std::size_t i = 0; i < layout.stacks.size(); ++i) {
    const StackLayout& s = layout.stacks[i];
    if (s.data_length == 0) continue;
    const std::uint64_t flipped_at = s.data_length / 2 + 1;
    Bytes bytes = good;
    bytes[s.data_position + flipped_at] ^= std::byte{0x5A};
    write_file_bytes(dir / "flipped.tbf", bytes);
    const auto file = Tarn::open_file(dir / "flipped.tbf", Mode::read);
    ASSERT_EQ(file->number_of_stacks(), layout.stacks.size());
    const auto stack = file->stack(i);
    Bytes data(stack->data_length());
    stack->read(0, stack->number_of_elements(), data.data());
    const Bytes expected(
        bytes.begin() + static_cast<std::ptrdiff_t>(s.data_position),
        bytes.begin() + static_cast<std::ptrdiff_t>(s.data_position + s.data_length));
    EXPECT_EQ(data, expected) << "stack " << i;
  }
}

// Not a test: writes the good files and the targeted damage as the corpus of the TBF file fuzz
// target into $TARNIO_TBF_CORPUS_DIR. Run with --gtest_also_run_disabled_tests.
TEST(DamagedFileCorpus, DISABLED_WriteFuzzCorpus) {
  const char* directory = std::getenv("TARNIO_TBF_CORPUS_DIR");
  if (directory == nullptr) GTEST_SKIP() << "TARNIO_TBF_CORPUS_DIR not set";
  const fs::path out(directory);
  write_file_bytes(out / "good_acquisition.tbf", acquisition());
  write_file_bytes(out / "good_version_1.tbf", acquisition_v1());
  write_file_bytes(out / "good_every_type.tbf", written_by(write_every_type));
  write_file_bytes(out / "good_no_stacks.tbf", written_by([](const fs::path& path) {
                     auto file = Tarn::create_file();
                     file->open(path, Mode::write);
                     file->close();
                   }));
  write_file_bytes(out / "good_appended.tbf", written_by([](const fs::path& path) {
                     write_acquisition(path);
                     auto file = Tarn::open_file(path, Mode::append);
                     auto stack = file->add_stack(dt::double_, {2, 2});
                     const std::vector<double> values{0.5, -1.5, 2.25, 1e300};
                     stack->write(std::span<const double>(values));
                     stack->commit();
                     file->set_metadata("appended", "yes");
                     file->close();
                   }));
  write_file_bytes(out / "good_rank_15.tbf", written_by([](const fs::path& path) {
                     auto file = Tarn::create_file(false);
                     file->open(path, Mode::write);
                     const std::vector<std::uint64_t> shape{2, 1, 1, 1, 1, 1, 1, 1,
                                                            1, 1, 1, 1, 1, 1, 3};
                     auto stack = file->add_stack(dt::int16, shape);
                     const std::vector<std::int16_t> values{1, -2, 3, -4, 5, -6};
                     stack->write(std::span<const std::int16_t>(values));
                     stack->commit();
                     file->close();
                   }));
  // One or two of each kind of damage; the fuzz engine finds the neighbours.
  std::set<std::string> chosen;
  std::istringstream names(
      "magic_first_ff version_3 version_2_as_1 version_1_as_2 description_length_all_ones "
      "metadata_position_0 metadata_position_behind_end metadata_position_in_header "
      "metadata_key_length_all_ones metadata_value_length_all_ones metadata_end_mark_missing "
      "first_stack_behind_end first_stack_in_header chain_loops_to_first "
      "chain_loops_to_itself chain_into_own_data chain_into_later_data stack_magic rank_16 "
      "size_all_ones type_unknown_3 type_same_size compression_2 compression_zlib_on_plain "
      "name_length_all_ones data_flag_0_with_data data_length_0_with_data "
      "data_length_all_ones data_length_on_dataless minimum_reader_version_8 "
      "record_length_all_ones record_entry_length_all_ones stack_info_not_json record_missing "
      "info_deep_lists axes_one_too_many unit_unknown tag_prop_huge_size tag_prop_too_deep "
      "record_unknown_entry reader_version_1_byte");
  for (std::string name; names >> name;) chosen.insert(name);
  std::vector<Variant> variants = targeted_variants();
  for (Variant& variant : crafted_records()) variants.push_back(std::move(variant));
  std::size_t written = 0;
  for (const Variant& variant : variants) {
    if (!chosen.contains(variant.name)) continue;
    write_file_bytes(out / ("damaged_" + variant.name + ".tbf"), variant.bytes);
    ++written;
  }
  EXPECT_EQ(written, chosen.size()) << "a chosen variant was renamed or removed";
}

}  // namespace
}  // namespace Tarn::bf

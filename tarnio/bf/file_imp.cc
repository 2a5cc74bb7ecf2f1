#include "tarnio/bf/file_imp.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "tarnio/bf/internal/byte_order.h"
#include "tarnio/bf/internal/file_header.h"
#include "tarnio/bf/internal/metadata_block.h"
#include "tarnio/bf/internal/positioning.h"
#include "tarnio/bf/internal/tbf_format.h"
#include "tarnio/errors/internal/raise.h"
#include "tarnio/ome/ome_element.h"
#include "tarnio/ome/root.h"
#include "tarnio/stack_factory/describe_stack.h"

namespace Tarn::bf {

namespace {

using errors::internal::throw_tarn;
using Mode = DiskFile::Mode;
using internal::kFirstStackOffset;
using internal::kFirstVersionWithMetadata;
using internal::kNextStackOffset;
using internal::kStackHeaderSize;

constexpr std::size_t kMetadataFieldSize = 8;
// The metadata entry that holds the OME-XML of the file.
constexpr std::string_view kOMEKey = "ome_xml";

std::uint64_t read_u64_at(DiskFileAccess& file, std::uint64_t pos) {
  internal::seek_exactly(file, pos);
  std::array<std::byte, 8> bytes{};
  file.read(bytes.data(), bytes.size());
  return internal::get_u64(bytes, 0);
}

std::uint64_t header_end(std::uint64_t header_position, std::uint32_t version,
                         const std::string& description) {
  return header_position + internal::kFileDescriptionOffset + description.size() +
         (version >= kFirstVersionWithMetadata ? kMetadataFieldSize : 0);
}

// The byte ranges [begin, end) of a file that its header, metadata block and stacks (header,
// name, description, data and record) occupy. In a sound file they never overlap; a chain that
// loops or whose stacks overlap is damaged. So every stack read occupies bytes of its own: a
// chain holds no more than file size / stack header size stacks, and what they keep in memory
// is bounded by the file's size.
class OccupiedRanges {
 public:
  bool overlaps(std::uint64_t begin, std::uint64_t end) const {
    if (begin >= end) return false;
    auto next = ranges_.lower_bound(end);
    if (next == ranges_.begin()) return false;
    return std::prev(next)->second > begin;
  }
  void add(std::uint64_t begin, std::uint64_t end) {
    if (begin < end) ranges_.emplace(begin, end);
  }

 private:
  // begin -> end, disjoint.
  std::map<std::uint64_t, std::uint64_t> ranges_;
};

// Where the bytes of `stack` end: behind its stack record when one follows its data, else
// behind the data; at the end of the file at the latest.
std::uint64_t stack_end(DiskFileAccess& file, const StackImp& stack, std::uint64_t file_size) {
  const std::uint64_t data = std::min(stack.data_position(), file_size);
  const std::uint64_t data_end = data + std::min(stack.data_length(), file_size - data);
  std::array<std::byte, internal::kRecordEntriesOffset> record{};
  if (file_size - data_end < record.size()) return data_end;
  internal::seek_exactly(file, data_end);
  file.read(record.data(), record.size());
  if (!internal::has_bytes(record, 0, internal::kRecordMagic)) return data_end;
  return data_end +
         std::min(internal::get_u64(record, internal::kRecordLengthOffset), file_size - data_end);
}

// stacks_ holds the stacks on disk (those with a position) in chain order, followed by the
// stacks still being described. Returns the end of the first group, found from the back, where
// the few stacks being described are.
std::vector<std::shared_ptr<StackImp>>::iterator on_disk_end(
    std::vector<std::shared_ptr<StackImp>>& stacks) {
  auto end = stacks.end();
  while (end != stacks.begin() && (*std::prev(end))->position() == 0) --end;
  return end;
}

}  // namespace

FileImp::FileImp(bool metadata) : metadata_flag_(metadata) {
  if constexpr (std::endian::native != std::endian::little) {
    throw std::runtime_error("Machines with big endian currently not supported.");
  }
}

FileImp::~FileImp() {
  try {
    close();
  } catch (...) {
    // Errors of a file that is closed only by its destructor are lost; close() reports them.
  }
}

void FileImp::open(const std::filesystem::path& path, DiskFile::Mode mode) {
  if (mode != Mode::read && mode != Mode::write && mode != Mode::append) {
    throw std::runtime_error("Invalid opening mode.");
  }
  DiskFile::open(path, mode);
  forget_file();
  if (mode == Mode::write) {
    header_position_ = tell();
    header_pending_ = true;
    writable_ = true;
    return;
  }
  // A file that cannot be read is closed again, so that the object can open another one.
  try {
    read_file(false);
    if (mode == Mode::append) {
      // New stacks go behind everything, the old metadata block included: it stays valid until
      // close() points the header at the new one, so an interrupted append loses only what it
      // added.
      link_position_ = stacks_.empty() ? header_position_ + kFirstStackOffset
                                       : stacks_.back()->position() + kNextStackOffset;
      internal::seek_end(*this);
      writable_ = true;
    }
  } catch (...) {
    close();
    throw;
  }
}

void FileImp::open_unfinished(const std::filesystem::path& path) {
  DiskFile::open_follower(path);
  forget_file();
  try {
    read_file(true);
  } catch (...) {
    close();
    throw;
  }
}

// What the previous file left for inspection after its close() is forgotten.
void FileImp::forget_file() {
  stacks_.clear();
  writing_ = nullptr;
  header_position_ = 0;
  link_position_ = 0;
  header_pending_ = false;
  writable_ = false;
  description_.clear();
  format_version_ = internal::kFileFormatVersion;
  metadata_.clear();
  metadata_position_ = 0;
  metadata_end_ = 0;
  metadata_field_position_ = 0;
  ome_root_.reset();
}

void FileImp::close() {
  if (!is_open()) return;
  const auto release = [this] {
    for (const auto& stack : stacks_) stack->detach_from_file();
    stacks_.clear();
    writing_ = nullptr;
    writable_ = false;
    header_pending_ = false;
    link_position_ = 0;
    DiskFile::close();
  };
  try {
    if (writable_) {
      drop_unfinished_stack();
      if (header_pending_) write_header();
      if (format_version_ >= kFirstVersionWithMetadata) write_metadata();
      flush_file_buffers();
    }
  } catch (...) {
    release();
    throw;
  }
  release();
}

bool FileImp::is_open() const { return is_open_for_reading(); }

void FileImp::set_description(const std::string& description) {
  if (!writable_) throw std::runtime_error("Read-only handle specified in write function.");
  if (!header_pending_) {
    throw std::runtime_error("Header already written. Cannot set file description.");
  }
  description_ = description;
}

void FileImp::set_metadata(const std::string& key, const std::string& value) {
  if (!writable_) throw std::runtime_error("Read-only handle specified in write function.");
  // A key of length 0 is the block's end mark.
  if (key.empty()) throw std::invalid_argument("Metadata key must not be empty.");
  metadata_[key] = value;
  if (key == kOMEKey) ome_root_.reset();
}

OME::Root& FileImp::get_OME_root() {
  if (ome_root_ == nullptr) {
    // A document that fails to read is not kept, so each request reports the error.
    auto root = std::make_unique<OME::Root>();
    const auto entry = metadata_.find(std::string(kOMEKey));
    if (entry != metadata_.end()) root->read_XML(entry->second);
    described_stacks_.clear();
    if (OME::OME* ome = root->ome()) {
      for (const OME::Image& image : ome->images()) {
        if (const auto index = described_stack(image)) described_stacks_.insert(*index);
      }
    }
    ome_root_ = std::move(root);
  }
  return *ome_root_;
}

std::shared_ptr<StackImp> FileImp::stack(std::size_t index) const {
  if (index >= stacks_.size()) throw_tarn("Invalid stack index '{}'.", index);
  return stacks_[index];
}

std::shared_ptr<StackImp> FileImp::add_stack(DataType type, std::span<const std::uint64_t> sizes) {
  if (!writable_) throw std::runtime_error("Read-only handle specified in write function.");
  StackHost& host = *this;
  auto stack = std::make_shared<StackImp>(host, type, sizes);
  stacks_.push_back(stack);
  return stack;
}

std::uint64_t FileImp::seek_stack(std::size_t n) {
  if (!is_open() || writable_) {
    throw std::runtime_error("File must be open in read mode to allow seeking to end of file.");
  }
  if (n >= stacks_.size()) throw std::runtime_error("Invalid stack number.");
  const std::uint64_t position = stacks_[n]->position();
  if (seek(position) != position) {
    throw std::runtime_error("File must be open in read mode to allow seeking to end of file.");
  }
  return position;
}

DiskFileAccess& FileImp::access() { return *this; }

std::uint64_t FileImp::begin_stack(StackImp& stack) {
  if (!writable_) throw std::runtime_error("Read-only handle specified in write function.");
  if (writing_ != nullptr) {
    throw std::runtime_error("Another stack of the file is still being written.");
  }
  if (header_pending_) write_header();
  // An appended stack is linked into the chain as soon as its header is written, so that
  // readers of the growing file follow it; until close() writes the new metadata block, the
  // file says it is incomplete, as a file in write mode does. A killed append so leaves a file
  // that recovery reads, never one that shows a half-written stack as complete.
  if (metadata_position_ != 0) {
    internal::patch_u64(*this, metadata_field_position_, 0);
    metadata_position_ = 0;
  }
  // A stack that failed before is taken out of the chain, so the new one takes its link.
  drop_unfinished_stack();

  // The claimed stack moves behind the stacks on disk, so that stacks_ keeps the chain order.
  const auto on_disk = on_disk_end(stacks_);
  const auto claimed =
      std::find_if(on_disk, stacks_.end(), [&](const auto& s) { return s.get() == &stack; });
  if (claimed != stacks_.end()) std::rotate(on_disk, claimed, std::next(claimed));

  const std::uint64_t end = internal::seek_end(*this);
  writing_ = &stack;
  return end;
}

void FileImp::link_stack(std::uint64_t position) {
  if (link_position_ != 0) internal::patch_u64(*this, link_position_, position);
  // The stack whose link was patched is the last one on disk, or the one before it when the
  // new stack already counts as on disk.
  auto it = on_disk_end(stacks_);
  for (int checked = 0; checked < 2 && it != stacks_.begin(); ++checked) {
    --it;
    if ((*it)->position() + kNextStackOffset == link_position_) {
      (*it)->set_next_position(position);
      break;
    }
  }
  link_position_ = position + kNextStackOffset;
}

void FileImp::end_stack(StackImp& stack) {
  if (writing_ == &stack) writing_ = nullptr;
  if (metadata_flag_ && stack.state() == StackImp::State::committed) describe_committed(stack);
}

// The committed stack gains its image. The stack is committed all the same when the document
// cannot be had (an appended file whose "ome_xml" does not read); close() then keeps that
// entry as it is.
void FileImp::describe_committed(const StackImp& stack) {
  // The stack is the last one on disk, or close to it.
  auto found = on_disk_end(stacks_);
  while (found != stacks_.begin() && std::prev(found)->get() != &stack) --found;
  if (found == stacks_.begin()) return;
  const auto index = static_cast<std::size_t>(found - stacks_.begin() - 1);
  try {
    // A file copied with its metadata (compacted, recovered) describes its stacks already.
    OME::Root& root = get_OME_root();
    if (described_stacks_.insert(index).second) describe_stack(root, stack, index);
  } catch (const std::invalid_argument&) {
  }
}

void FileImp::read_file(bool unfinished) {
  const std::uint64_t start = tell();
  try {
    header_position_ = start;
    read_header();
    if (!unfinished) {
      read_metadata();
    } else if (metadata_position_ != 0) {
      // An unfinished file has no metadata block yet; one that cannot be read is lost, and the
      // stacks are what is left to show.
      try {
        read_metadata();
      } catch (const std::exception&) {
        metadata_.clear();
        metadata_position_ = 0;
        metadata_end_ = 0;
      }
    }
    read_chain(unfinished);
    internal::seek_exactly(*this, header_end(header_position_, format_version_, description_));
  } catch (...) {
    for (const auto& stack : stacks_) stack->detach_from_file();
    stacks_.clear();
    // The error on its way says more than a failure to move back could.
    seek(start);
    throw;
  }
}

void FileImp::read_header() {
  internal::FileHeaderLayout layout;
  internal::FileHeader header = internal::read_file_header(*this, layout);
  format_version_ = header.version;
  description_ = std::move(header.description);
  metadata_position_ = header.metadata_position;
  metadata_field_position_ = layout.metadata_field;
}

void FileImp::read_metadata() {
  if (format_version_ < kFirstVersionWithMetadata) return;
  if (metadata_position_ == 0) throw std::runtime_error("File incomplete. Metadata missing.");
  if (metadata_position_ < header_end(header_position_, format_version_, description_)) {
    throw_tarn("Damaged metadata block: {}", "it starts inside the file header.");
  }
  const std::uint64_t file_size = size();
  if (metadata_position_ > file_size) {
    throw_tarn("Damaged metadata block: {}", "it starts behind the end of the file.");
  }
  internal::seek_exactly(*this, metadata_position_);
  metadata_ = internal::read_metadata_block(*this, file_size);
  metadata_end_ = tell();
}

void FileImp::read_chain(bool unfinished) {
  const std::uint64_t file_size = size();
  OccupiedRanges occupied;
  occupied.add(header_position_, header_end(header_position_, format_version_, description_));
  occupied.add(metadata_position_, metadata_end_);

  StackHost& host = *this;
  std::uint64_t position = read_u64_at(*this, header_position_ + kFirstStackOffset);
  std::uint64_t previous_end = header_end(header_position_, format_version_, description_);
  while (position != 0) {
    if (unfinished) take_metadata_between(previous_end, position);
    if (position > file_size || file_size - position < kStackHeaderSize ||
        occupied.overlaps(position, position + kStackHeaderSize)) {
      if (unfinished) return;
      throw std::runtime_error("Invalid stack position specified in header.");
    }
    std::shared_ptr<StackImp> stack;
    if (!unfinished) {
      stack = StackImp::read_from(host, position);
    } else {
      // What cannot be read of an unfinished file is where its writer stopped.
      try {
        stack = StackImp::read_unfinished_from(host, position);
      } catch (const std::exception&) {
      }
      if (stack == nullptr) return;
    }
    const std::uint64_t end = stack_end(*this, *stack, file_size);
    if (occupied.overlaps(position, end)) {
      stack->detach_from_file();
      if (unfinished) return;
      throw std::runtime_error("Invalid stack position specified in header.");
    }
    occupied.add(position, end);
    previous_end = end;
    stacks_.push_back(stack);
    if (stack->is_unfinished()) return;
    position = stack->next_position();
  }
}

// An append marks its file incomplete until close; when it died, the metadata block of the
// file as it was before lies between the last stack the file had and the first one added. It
// is taken when it fills that gap exactly, so that recovery keeps it.
void FileImp::take_metadata_between(std::uint64_t begin, std::uint64_t end) {
  if (metadata_position_ != 0 || !metadata_.empty() || begin >= end ||
      format_version_ < kFirstVersionWithMetadata) {
    return;
  }
  try {
    internal::seek_exactly(*this, begin);
    auto entries = internal::read_metadata_block(*this, end);
    if (tell() == end) metadata_ = std::move(entries);
  } catch (const std::exception&) {
    // Whatever lies in the gap is no metadata block.
  }
}

void FileImp::write_header() {
  internal::FileHeader header;
  header.version = format_version_;
  header.description = description_;
  internal::seek_exactly(*this, header_position_);
  const internal::FileHeaderLayout layout = internal::write_file_header(*this, header);
  metadata_field_position_ = layout.metadata_field;
  link_position_ = layout.first_stack_field;
  header_pending_ = false;
}

// With the metadata flag, "ome_xml" receives the document's OME-XML when the document was
// built (every committed stack builds it) or the file has no such entry yet; an entry nobody
// asked for stays as it was read, so that closing an append that added nothing changes nothing.
void FileImp::store_OME_root() {
  if (!metadata_flag_) return;
  if (ome_root_ == nullptr && metadata_.contains(std::string(kOMEKey))) return;
  try {
    metadata_[std::string(kOMEKey)] = get_OME_root().XML();
  } catch (const std::invalid_argument&) {
    // An entry that does not read is kept as it stands.
  }
}

void FileImp::write_metadata() {
  store_OME_root();
  const std::uint64_t position = internal::seek_end(*this);
  // An append that added nothing leaves the file as it was: the block the header points at is
  // still the last thing in the file and holds the same entries.
  if (metadata_position_ != 0 && metadata_end_ == position) {
    internal::seek_exactly(*this, metadata_position_);
    if (internal::read_metadata_block(*this, position) == metadata_) return;
    internal::seek_exactly(*this, position);
  }
  internal::write_metadata_block(*this, metadata_);
  metadata_end_ = tell();
  // The block reaches the device before the header points at it.
  flush_file_buffers();
  internal::patch_u64(*this, metadata_field_position_, position);
  metadata_position_ = position;
}

// Takes the last stack of the chain out of it when it is still being written or failed: the
// link that leads to it (in the previous stack's header, or the file header's first-stack
// field) becomes 0 again and the stack is no longer the file's.
void FileImp::drop_unfinished_stack() {
  const auto on_disk = on_disk_end(stacks_);
  if (on_disk == stacks_.begin()) return;
  const auto tail = std::prev(on_disk);
  const StackImp::State state = (*tail)->state();
  if (tail->get() != writing_ && state != StackImp::State::writing &&
      state != StackImp::State::failed) {
    return;
  }
  const bool first = tail == stacks_.begin();
  const std::uint64_t previous_link = first ? header_position_ + kFirstStackOffset
                                            : (*std::prev(tail))->position() + kNextStackOffset;
  internal::patch_u64(*this, previous_link, 0);
  if (!first) (*std::prev(tail))->set_next_position(0);
  link_position_ = previous_link;
  if (writing_ == tail->get()) writing_ = nullptr;
  (*tail)->detach_from_file();
  stacks_.erase(tail);
}

}  // namespace Tarn::bf

namespace Tarn {

std::shared_ptr<bf::FileInterface> create_file(bool metadata) {
  return std::make_shared<bf::FileImp>(metadata);
}

std::shared_ptr<bf::FileInterface> open_file(const std::filesystem::path& path,
                                             bf::DiskFile::Mode mode) {
  auto file = std::make_shared<bf::FileImp>();
  file->open(path, mode);
  return file;
}

std::shared_ptr<bf::FileInterface> open_unfinished_file(const std::filesystem::path& path) {
  auto file = std::make_shared<bf::FileImp>();
  file->open_unfinished(path);
  return file;
}

}  // namespace Tarn

#pragma once

// Tarn::bf::FileImp: the TBF file container, itself the disk file it reads and writes. It keeps
// the file header (format version, description, first-stack and metadata positions), the
// metadata entries and the chain of stacks (each header links to the next; the container
// patches the previous link when a stack is added).
//
// Errors (std::runtime_error unless noted):
//   "Invalid opening mode."                       a mode other than read, write, append
//   "No TBF file header found."                   the first ten bytes are not the magic
//   "File incomplete. Metadata missing."          a version-2 file whose metadata position is 0
//   "Invalid stack position specified in header." a chain link outside the file, or a loop
//   TarnError "Invalid stack index '{}'."         stack() past the last stack
//   "File must be open in read mode to allow seeking to end of file."
//   "Invalid stack number."                       seek_stack() past the last stack
//   "Read-only handle specified in write function."
//   "Header already written. Cannot set file description."
//   "Machines with big endian currently not supported."
//   TarnError "Unsupported TBF file format version {}."   versions 0 and above 2
//   std::invalid_argument "Metadata key must not be empty."
// and TarnError for a damaged metadata block or stack and for failures of the system. When
// reading fails anywhere, the file position is put back where reading began and the file is
// closed again, so the object can open another.
//
// Not thread-safe. Held by shared pointer (create_file, open_file); shared() returns one.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_host.h"
#include "tarnio/bf/stack_imp.h"
#include "tarnio/export.h"

namespace Tarn::bf {

class TARNIO_EXPORT FileImp : public FileInterface,
                              public DiskFile,
                              private StackHost,
                              public std::enable_shared_from_this<FileImp> {
 public:
  // The bytes a stack moves per disk call and per conversion block.
  static constexpr std::uint64_t kBlockSize = 0x400000;

  // Throws "Machines with big endian currently not supported." on a big-endian machine.
  explicit FileImp(bool metadata = true);
  ~FileImp() override;

  void open(const std::filesystem::path& path, DiskFile::Mode mode) override;
  // Opens read-only a file that another process may still be writing, or whose writer died:
  // without the readers' lock and without its metadata block when there is none yet. The
  // stacks are those committed, in chain order, up to the first that is not, plus, when that
  // one is written chunk-wise, its committed chunks (StackImp::is_unfinished). Anything damaged
  // or not yet written ends the chain quietly. A file whose append has not finished keeps the
  // metadata it had before the append. Throws as open() for a file without header.
  void open_unfinished(const std::filesystem::path& path);
  void close() override;
  bool is_open() const override;
  bool is_writable() const override { return writable_; }
  std::uint32_t format_version() const override { return format_version_; }
  const std::string& description() const override { return description_; }
  void set_description(const std::string& description) override;
  const std::map<std::string, std::string>& metadata() const override { return metadata_; }
  void set_metadata(const std::string& key, const std::string& value) override;
  std::size_t number_of_stacks() const override { return stacks_.size(); }
  std::shared_ptr<StackImp> stack(std::size_t index) const override;
  std::shared_ptr<StackImp> add_stack(DataType type, std::span<const std::uint64_t> sizes) override;
  void set_threading_support(ThreadingSupport threading) override {
    DiskFile::set_threading_support(std::move(threading));
  }
  std::uint64_t seek_stack(std::size_t n) override;
  std::uint64_t file_size() const override { return size(); }
  std::shared_ptr<FileInterface> shared() override { return shared_from_this(); }
  OME::Root& get_OME_root() override;

  bool metadata_flag() const { return metadata_flag_; }
  std::uint64_t metadata_position() const { return metadata_position_; }
  // Bytes passed through the container's raw write.
  std::uint64_t bytes_written() const { return bytes_written_; }

 private:
  // StackHost: what the stacks need of their file.
  DiskFileAccess& access() override;
  std::uint64_t block_size() const override { return kBlockSize; }
  std::uint64_t begin_stack(StackImp& stack) override;
  void link_stack(std::uint64_t position) override;
  void end_stack(StackImp& stack) override;
  void count_written(std::uint64_t bytes) override { bytes_written_ += bytes; }
  void mark_sparse() override { set_sparse(true); }

  // Resets what the previously open file left; nothing is open afterwards.
  void forget_file();
  void read_file(bool unfinished);
  void read_header();
  void read_metadata();
  void read_chain(bool unfinished);
  void take_metadata_between(std::uint64_t begin, std::uint64_t end);
  void write_header();
  void write_metadata();
  void drop_unfinished_stack();
  void describe_committed(const StackImp& stack);
  void store_OME_root();

  std::vector<std::shared_ptr<StackImp>> stacks_;
  // The stack being written, if any; one at a time.
  StackImp* writing_ = nullptr;
  std::uint64_t header_position_ = 0;
  std::uint64_t link_position_ = 0;
  bool header_pending_ = false;
  bool writable_ = false;
  std::string description_;
  std::uint32_t format_version_ = 2;
  std::map<std::string, std::string> metadata_;
  bool metadata_flag_;
  std::uint64_t metadata_position_ = 0;
  std::uint64_t metadata_end_ = 0;
  std::uint64_t metadata_field_position_ = 0;
  std::uint64_t bytes_written_ = 0;
  // Built on first request; null until then and after "ome_xml" is set.
  std::unique_ptr<OME::Root> ome_root_;
  // The stacks that the root describes, so that a copied description gains no second image.
  std::set<std::size_t> described_stacks_;
};

}  // namespace Tarn::bf

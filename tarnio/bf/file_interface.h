#pragma once

// Tarn::bf::FileInterface: a TBF binary stack file as its callers see it: a description, named
// metadata strings (among them "ome_xml", the OME-XML of the measurement) and any number of
// n-dimensional stacks one after the other. FileImp is its implementation; Tarn::create_file
// and Tarn::open_file hand them out as shared pointers.
//
//   auto file = Tarn::create_file();
//   file->open("cells.tbf", Tarn::bf::DiskFile::Mode::write);
//   auto stack = file->add_stack(Tarn::dt::uint16, {2048, 2048, 64});
//   stack->set_lengths({133.1, 133.1, 32.0});
//   stack->write(plane_bytes.data(), plane_bytes.size());  // ... once per plane
//   stack->commit();
//   file->close();  // writes the metadata block; the file is complete only now
//
// Modes: read opens an existing file and reads its header, metadata and stack chain; write
// creates (or truncates) a file; append reads an existing file and adds stacks behind its last
// one, writing the metadata block anew at close.
//
// Errors: see file_imp.h. Not thread-safe: one thread at a time uses a file and its stacks.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <memory>
#include <span>
#include <string>

#include "tarnio/arrays/data_type.h"
#include "tarnio/bf/disk_file.h"
#include "tarnio/bf/stack_imp.h"
#include "tarnio/export.h"

namespace OME {
class Root;
}  // namespace OME

namespace Tarn::bf {

class TARNIO_EXPORT FileInterface {
 public:
  virtual ~FileInterface() = default;

  virtual void open(const std::filesystem::path& path, DiskFile::Mode mode) = 0;
  // Finishes a writable file (drops a stack left unfinished, writes the metadata block and
  // patches the header) and closes it; its stacks can no longer be used. Does nothing when
  // nothing is open. The destructor closes too, but swallows errors: call close() to see them.
  virtual void close() = 0;
  virtual bool is_open() const = 0;
  virtual bool is_writable() const = 0;

  // The version of the file header: 2 for files this library writes, 1 for older files
  // (without metadata block).
  virtual std::uint32_t format_version() const = 0;
  virtual const std::string& description() const = 0;
  // Only on a writable file before its header is written, that is before the first stack is.
  virtual void set_description(const std::string& description) = 0;

  virtual const std::map<std::string, std::string>& metadata() const = 0;
  // Adds or replaces an entry of a writable file; written at close. Throws
  // std::invalid_argument "Metadata key must not be empty.".
  virtual void set_metadata(const std::string& key, const std::string& value) = 0;

  // The OME description of the measurement, owned by the file: built from "ome_xml" on first
  // request (an empty document when there is none), never when the file is opened. On a
  // writable file with the metadata flag, every stack committed gains an image that describes
  // it (see tarnio/stack_factory/describe_stack.h) and close() stores the document's OME-XML in
  // "ome_xml", so an append extends the description. Throws what OME::Root::read_XML throws
  // for an entry that is not OME-XML or refers to missing IDs, each time it is asked; the
  // stacks read all the same, and close() then keeps the entry as it was. set_metadata of
  // "ome_xml" replaces the document.
  virtual OME::Root& get_OME_root() = 0;

  // The stacks on disk in chain order, then those added but not yet written (close() drops
  // those).
  virtual std::size_t number_of_stacks() const = 0;
  // Throws TarnError "Invalid stack index '{}'." past the last stack.
  virtual std::shared_ptr<StackImp> stack(std::size_t index) const = 0;
  // A new stack behind the existing ones; see stack_imp.h for how it is written. Throws
  // std::runtime_error "Read-only handle specified in write function." on a read-only file.
  virtual std::shared_ptr<StackImp> add_stack(DataType type,
                                              std::span<const std::uint64_t> sizes) = 0;
  std::shared_ptr<StackImp> add_stack(DataType type, std::initializer_list<std::uint64_t> sizes) {
    return add_stack(type, std::span<const std::uint64_t>(sizes.begin(), sizes.size()));
  }

  // How many threads the stacks may use to compress and decompress, and how they start tasks.
  virtual void set_threading_support(ThreadingSupport threading) = 0;

  // Moves the file position to the start of stack n and returns it (read mode only).
  virtual std::uint64_t seek_stack(std::size_t n) = 0;
  // The file's size in bytes.
  virtual std::uint64_t file_size() const = 0;

  virtual std::shared_ptr<FileInterface> shared() = 0;
};

}  // namespace Tarn::bf

namespace Tarn {

// A new, closed file; open() it in write mode. `metadata` says whether the file carries the
// OME description of the measurement in its "ome_xml" entry; it is kept as metadata_flag().
TARNIO_EXPORT std::shared_ptr<bf::FileInterface> create_file(bool metadata = true);
// Opens the file at `path` in `mode` (see above). Throws as FileImp::open does.
TARNIO_EXPORT std::shared_ptr<bf::FileInterface> open_file(const std::filesystem::path& path,
                                                           bf::DiskFile::Mode mode);
// Opens read-only a file that another process is still writing, or whose writer died before
// close (which open_file refuses with "File incomplete. Metadata missing."): its committed
// stacks and the committed chunks of a stack written chunk-wise (see FileImp::open_unfinished).
// Open it again to see what was added since.
TARNIO_EXPORT std::shared_ptr<bf::FileInterface> open_unfinished_file(
    const std::filesystem::path& path);

}  // namespace Tarn

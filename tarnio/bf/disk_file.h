#pragma once

// DiskFile: the one object of the binary stack file that touches the operating system. It holds
// one POSIX file descriptor, owned when open() obtained it and borrowed when attach() was given
// it, and offers positioned, unbuffered, whole-or-nothing reads and writes of any size, sizes,
// the sparse flag and flushing. Not thread-safe, but for read_at and the sizes: one thread at
// a time uses the position, any number read at positions of their own.
//
// Sharing: open() takes an advisory flock on a regular file, shared in read mode and exclusive
// in write and append mode, so that readers share the file only with other readers. A
// conflicting opener, in this process or another, fails with "Could not open file: {}" and the
// system text; write mode replaces an existing file only once it holds the lock, so a refused
// writer leaves the file intact. File systems without flock are opened without a lock; attached
// descriptors are never locked. open_follower() reads without any lock, to follow a file that
// another process is still writing.
//
// Write mode gives a fresh file: an existing regular file with one name is unlinked and
// created anew, which costs far less than truncating its blocks in place; a symbolic link, a
// file with several names or a device keeps its identity and is truncated (or written) instead,
// and so does a file whose owner and group the new file could not be given. The new file gets
// the old one's owner, group and permission bits; it does not keep the old inode number, the
// timestamps, extended attributes (access control lists, security labels) or inode flags. When
// the new file cannot be created after the old one was unlinked (the name was taken meanwhile,
// no descriptor or quota left), open() fails with the system's text and writes nothing.

#include <cstdint>
#include <filesystem>

#include "tarnio/bf/disk_file_access.h"
#include "tarnio/bf/threading_support.h"
#include "tarnio/export.h"

namespace Tarn::bf {

class TARNIO_EXPORT DiskFile : public DiskFileAccess {
 public:
  // read: reading only; the file must exist. write: reading and writing; created, or truncated if
  // it exists. append: reading and writing; the file must exist and keeps its contents. The
  // position starts at 0 in every mode.
  enum class Mode : std::int32_t { none = -1, read = 0, write = 1, append = 2 };

  // A POSIX file descriptor; kNoHandle when there is none.
  using NativeHandle = int;
  static constexpr NativeHandle kNoHandle = -1;

  DiskFile() = default;
  // Opens path as open() does.
  DiskFile(const std::filesystem::path& path, Mode mode);
  // A copy of an owned descriptor owns a duplicate of it (dup: the same open file, so position
  // and lock are shared); a copy of an attached descriptor borrows the same one. Throws a
  // TarnError "Could not open file: {}" when the system has no descriptor left. Assignment
  // replaces what this object held, closing it if it was owned.
  DiskFile(const DiskFile& other);
  DiskFile& operator=(const DiskFile& other);
  // Closes an owned descriptor; never throws.
  ~DiskFile() override;

  // tell, seek, read, write, flush_file_buffers and size throw std::runtime_error "File not
  // open." when no descriptor is held. Failures of the system are TarnErrors whose text ends
  // with the system's; after any failure the object keeps its descriptor and mode.
  //
  // Reading is possible in every mode, writing in write and append mode.
  bool is_open_for_reading() const override;
  bool is_open_for_writing() const override;
  // kNpos when the descriptor has no position (a pipe).
  std::uint64_t tell() const override;
  std::uint64_t seek(std::uint64_t pos) override;
  // Reading past the end throws "Failed reading {n} bytes from file: File too short.". A null
  // buf is fine when n is 0.
  void read(void* buf, std::uint64_t n) override;
  // Reads as read() does at pos (pread), without using or moving the position: any number of
  // threads may read so at once, also while one thread writes through the position.
  void read_at(std::uint64_t pos, void* buf, std::uint64_t n) override;
  // size(), callable from several threads at once.
  std::uint64_t current_size() override { return size(); }
  // Running out of room part way, or a call that writes nothing, throws "Failed writing {n}
  // bytes to file: Not enough space."; the bytes written before stay in the file.
  void write(const void* buf, std::uint64_t n) override;
  // Waits until the system has written the file's data to the device (fsync).
  void flush_file_buffers() override;
  ThreadingSupport threading_support() const override;

  // Throws std::runtime_error for a second open or an invalid mode, a TarnError "Could not open
  // file: {}" with the system text when the system refuses (a directory, a missing file, a
  // lock held elsewhere).
  void open(const std::filesystem::path& path, Mode mode);
  // Opens an existing file for reading (mode read) without taking the readers' lock, so that a
  // file another process holds for writing can be read while it grows. Throws as open() does.
  void open_follower(const std::filesystem::path& path);
  // Borrows a descriptor that the caller opened, keeps and closes; it is not locked. Throws
  // std::runtime_error as open() does, std::invalid_argument for a negative handle.
  void attach(NativeHandle handle, Mode mode);
  // Gives up the descriptor without closing it and returns it (kNoHandle when none); an owned
  // descriptor then belongs to the caller, with its lock.
  NativeHandle detach();
  // Closes an owned descriptor; does nothing when none is held, throws std::runtime_error for
  // an attached one.
  void close();
  Mode mode() const { return mode_; }

  // Both sizes throw a TarnError "Could not get file size: {}" with the system text.
  std::uint64_t size() const;
  // The bytes the file really occupies on the device: less than its size where it has holes.
  static std::uint64_t size_on_disk(const std::filesystem::path& path);
  // Records whether the file is meant to be sparse. Linux files are sparse wherever they were
  // never written, so reserved space that is skipped with seek() takes no room in either case.
  // Throws "Failed to set sparse flag: {}" when the descriptor is not usable (none held).
  void set_sparse(bool sparse);
  bool is_sparse() const { return sparse_; }

  void set_threading_support(ThreadingSupport threading);

  // Deletes a file. Throws a TarnError "Could not remove file: {}" when it does not exist,
  // std::filesystem::filesystem_error for any other failure (a directory).
  static void remove(const std::filesystem::path& path);

 private:
  void adopt(NativeHandle handle, bool owned, Mode mode);
  void open_descriptor(const std::filesystem::path& path, Mode mode, bool locked);
  void require_handle() const;

  ThreadingSupport threading_;
  NativeHandle handle_ = kNoHandle;
  bool owned_ = false;
  Mode mode_ = Mode::none;
  bool sparse_ = false;
};

}  // namespace Tarn::bf

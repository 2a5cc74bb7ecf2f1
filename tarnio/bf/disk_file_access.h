#pragma once

// DiskFileAccess: positioned, whole-or-nothing access to the bytes of a file, the one view that
// the file container, the stacks and their segments have of storage, so that a segment can sit
// over a disk file or over another access object. Also the encoding of every length-prefixed
// string in the file formats. Objects are used by one thread at a time, except that
// implementations may allow read_at and current_size from several threads at once (a disk file
// does); the interface owns nothing.

#include <cstdint>
#include <limits>
#include <string>

#include "tarnio/bf/threading_support.h"
#include "tarnio/export.h"

namespace Tarn::bf {

class TARNIO_EXPORT DiskFileAccess {
 public:
  // The all-ones position: seek(kNpos) moves to the end of the file, seek and tell return it
  // when they fail, and read_str(s, kNpos) reads the length from the file first.
  static constexpr std::uint64_t kNpos = std::numeric_limits<std::uint64_t>::max();

  virtual bool is_open_for_reading() const = 0;
  virtual bool is_open_for_writing() const = 0;
  virtual std::uint64_t tell() const = 0;
  // Moves to the absolute position pos and returns it; kNpos moves to the end and returns the
  // size. Returns kNpos, without throwing, when the move fails.
  virtual std::uint64_t seek(std::uint64_t pos) = 0;
  // Transfers exactly n bytes or throws a TarnError.
  virtual void read(void* buf, std::uint64_t n) = 0;
  virtual void write(const void* buf, std::uint64_t n) = 0;
  virtual void flush_file_buffers() = 0;
  virtual ThreadingSupport threading_support() const = 0;
  virtual ~DiskFileAccess() = default;
  // Reads exactly n bytes at the absolute position pos, or throws a TarnError, without using
  // or moving the file position. This default seeks and reads (and so moves it); a disk file
  // reads positioned, so that several threads may read at once and a stack being written
  // keeps its position.
  virtual void read_at(std::uint64_t pos, void* buf, std::uint64_t n);
  // The file's size. This default moves to the end and back; a disk file asks the system and
  // leaves the position alone.
  virtual std::uint64_t current_size();

  // Reads n characters into s; with n = kNpos, first reads n as a 4-byte little-endian length.
  // n is checked against the bytes left before s grows: when the file is shorter, throws the
  // TarnError "Failed reading {n} bytes from file: File too short." with s and the position
  // (after the length) left as they were.
  void read_str(std::string& s, std::uint64_t n = kNpos);
  // Writes the characters of s, without terminator, after their count as a 4-byte
  // little-endian length when with_length is set. Throws TarnError "String too long for a 4-byte
  // length.", writing nothing, when the count does not fit in the length.
  void write_str(const std::string& s, bool with_length = true);

 protected:
  DiskFileAccess() = default;
  DiskFileAccess(const DiskFileAccess&) = default;
  DiskFileAccess& operator=(const DiskFileAccess&) = default;
};

}  // namespace Tarn::bf

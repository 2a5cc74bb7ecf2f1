#pragma once

// A directory tree packed straight into a stack of a TBF file and restored from one, the way
// Kalix::Archive::pack and unpack do it for in-memory stacks: the same blob, shape and "kalix"
// tag. Packing hands the blob to the file piece by piece while the tree is read, so memory stays
// at a few MiB whatever the tree's size; unpacking reads the stack's data into memory once and
// restores the tree from there. Not thread-safe: one thread uses the file at a time.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "tarnio/archive/blob.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/bf/stack_imp.h"
#include "tarnio/export.h"

namespace Kalix::Archive {

// Adds a committed "uint8" stack holding the tree at `directory` to `file`, which is open for
// writing or appending, tagged as pack() tags its stack. `prepare`, when given, is called with
// the new stack before its data is written: to set its name, compression or progress callback.
// Throws as pack() and as the stack's write(), "Cancelled by user." included; a failed stack is
// dropped by the file when it is closed.
TARNIO_EXPORT std::shared_ptr<Tarn::bf::StackImp> pack_to_file(
    Tarn::bf::FileInterface& file, const std::filesystem::path& directory, const std::string& label,
    std::string aid, const std::function<void(Tarn::bf::StackImp&)>& prepare = {});

// Restores the tree held by the committed `stack` in `directory`, as unpack() does. Throws
// std::runtime_error "Elements without a size hold no archive." for such a stack, TarnError
// "The stack claims more data than its file holds." when its shape promises more bytes than
// its stored data could inflate to (nothing is allocated for it), and what the stack's read()
// and unpack() throw.
TARNIO_EXPORT Blob::Header unpack_from_file(Tarn::bf::StackImp& stack,
                                            const std::filesystem::path& directory);

}  // namespace Kalix::Archive

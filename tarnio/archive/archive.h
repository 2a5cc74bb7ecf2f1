#pragma once

// Kalix::Archive: a directory tree of localization data as the bytes of one "uint8" stack, and
// back. The tree holds "zarr/klx/.zattrs", a JSON object whose member "did" identifies the
// data. pack() makes an in-memory stack of side x side x 1 x 1 bytes (side = floor(sqrt(n)) + 1
// for a blob of n bytes) whose first n bytes are the blob (blob.h), tagged "kalix" with the
// archive's description:
//   {"aid": archive id, "did": data id, "label": label, "type": "data", "sid": data id}
// Callers that store the blob in a stack of their own (a file stack, written piece by piece
// through Blob::fs_to_sink) use stack_side() and describe() to give it the same shape and tag.
// Thread-safe: no shared state.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "tarnio/archive/blob.h"
#include "tarnio/arrays/stack_interface.h"
#include "tarnio/export.h"
#include "tarnio/json/value.h"

namespace Kalix {

// A fresh random identifier: 36 characters, lower-case hexadecimal 8-4-4-4-12, version 4.
TARNIO_EXPORT std::string make_uid();

namespace Archive {

inline constexpr const char* kTag = "kalix";

// The member "did" of zarr/klx/.zattrs below `directory`; empty when the file or the member is
// absent. Throws std::runtime_error when the file cannot be read or parsed, or its "did" is no
// string.
TARNIO_EXPORT std::string read_did(const std::filesystem::path& directory);

// The tree at `directory` as a new stack, or null when its blob would be empty. Throws as
// Blob::fs_to_buffer and read_did.
TARNIO_EXPORT std::unique_ptr<Tarn::arrays::StackInterface> pack(
    const std::filesystem::path& directory, const std::string& label, std::string aid);

// Restores the tree of a packed stack in `directory` (see Blob::buffer_to_fs) and returns the
// blob's header. Throws std::runtime_error "cannot unpack empty stack" for a null stack or one
// without data, "signature mismatch" for data that does not begin with the signature, and what
// Blob::buffer_to_fs throws.
TARNIO_EXPORT Blob::Header unpack(std::shared_ptr<const Tarn::arrays::StackInterface> stack,
                                  const std::filesystem::path& directory);

// The identifier of the archive that `description` describes: its "aid", else its "did", else
// its "sid"; empty when it has none of them as a string.
TARNIO_EXPORT std::string infer_data_aid(const JSON::Value& description);
// The identifier of the data for a live view: its "sid", else its "did", else its "aid"; empty
// when it has none of them as a string.
TARNIO_EXPORT std::string infer_liveview_sid(const JSON::Value& description);

// The side of the square stack that holds a blob of `blob_size` bytes: floor(sqrt(n)) + 1.
TARNIO_EXPORT std::uint64_t stack_side(std::uint64_t blob_size);
// The description that pack() stores in the tag "kalix".
TARNIO_EXPORT JSON::Value describe(const std::string& aid, const std::string& did,
                                   const std::string& label);

}  // namespace Archive
}  // namespace Kalix

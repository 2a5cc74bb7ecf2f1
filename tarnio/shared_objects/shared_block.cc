#include "tarnio/shared_objects/shared_block.h"

#include <cxxabi.h>
#include <pthread.h>

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "tarnio/errors/internal/raise.h"
#include "tarnio/shared_objects/internal/robust_mutex.h"

namespace Tarn {
namespace {

namespace bip = boost::interprocess;
using errors::internal::throw_tarn;

// The one allocation in each segment: this header, then the value.
struct BlockHeader {
  std::uint64_t magic;
  pthread_mutex_t mutex;
  std::uint64_t size;
  char type[256];  // the type's mangled name, cut to fit and ended by a zero
};

constexpr std::uint64_t kBlockMagic = 0x314b434f4c424e54;  // "TNBLOCK1" read little-endian
constexpr const char* kBlockName = "tarn_block";
constexpr std::size_t kValueOffset = (sizeof(BlockHeader) + alignof(std::max_align_t) - 1) /
                                     alignof(std::max_align_t) * alignof(std::max_align_t);
// Room for the segment's own bookkeeping and name index beside the block.
constexpr std::size_t kSegmentOverhead = 8192;
constexpr std::size_t kMaxNameLength = 200;

void check_name(const std::string& name) {
  const bool valid = !name.empty() && name.size() <= kMaxNameLength && name.front() != '.' &&
                     std::all_of(name.begin(), name.end(), [](char c) {
                       return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                              (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
                     });
  if (!valid) throw std::invalid_argument("Invalid shared object name '" + name + "'.");
}

// The name of the system's shared memory object behind the block `name`.
std::string segment_name(const std::string& name) { return "tarn_" + name; }

std::string readable_type(const char* mangled) {
  int status = 0;
  char* plain = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  std::string text = status == 0 ? plain : mangled;
  std::free(plain);
  return text;
}

// Opens or creates the segment; false when `mode` is open and there is none.
bool attach_segment(bip::managed_shared_memory& segment, const std::string& name,
                    SharedBlock::Mode mode, std::size_t size) {
  const std::string system_name = segment_name(name);
  const std::size_t segment_size = kValueOffset + size + kSegmentOverhead;
  try {
    switch (mode) {
      case SharedBlock::Mode::create:
        segment = bip::managed_shared_memory(bip::create_only, system_name.c_str(), segment_size);
        break;
      case SharedBlock::Mode::open:
        segment = bip::managed_shared_memory(bip::open_only, system_name.c_str());
        break;
      case SharedBlock::Mode::open_or_create:
        segment =
            bip::managed_shared_memory(bip::open_or_create, system_name.c_str(), segment_size);
        break;
    }
  } catch (const bip::interprocess_exception& error) {
    if (error.get_error_code() == bip::already_exists_error) {
      throw_tarn("Shared object '{}' already exists.", name);
    }
    if (error.get_error_code() == bip::not_found_error) return false;
    throw_tarn("Could not open shared object '{}': {}", name, error.what());
  }
  return true;
}

}  // namespace

struct SharedBlock::Imp {
  std::string name;
  bip::managed_shared_memory segment;
  BlockHeader* header = nullptr;
  bool created = false;

  static std::unique_ptr<Imp> open(const std::string& name, Mode mode, std::string_view type,
                                   std::size_t size, std::span<const std::byte>* initial);
  std::pair<std::byte*, std::size_t> find_or_make_block(std::string_view type,
                                                        std::span<const std::byte>* initial);
};

// Finds the block in the segment or, given `initial`, makes it: under the segment's own lock, so
// that no process sees a block half made.
std::pair<std::byte*, std::size_t> SharedBlock::Imp::find_or_make_block(
    std::string_view type, std::span<const std::byte>* initial) {
  std::pair<std::byte*, std::size_t> block{nullptr, 0};
  auto attach = [&] {
    block = segment.find<std::byte>(kBlockName);
    if (block.first != nullptr || initial == nullptr) return;
    const std::size_t total = kValueOffset + initial->size();
    block = {segment.construct<std::byte>(kBlockName)[total](std::byte{0}), total};
    auto* made = new (block.first) BlockHeader{};
    made->size = initial->size();
    type.copy(made->type, std::min(type.size(), sizeof made->type - 1));
    std::memcpy(block.first + kValueOffset, initial->data(), initial->size());
    shared_objects::internal::init_robust_mutex(&made->mutex, name);
    made->magic = kBlockMagic;
    created = true;
  };
  try {
    segment.atomic_func(attach);
  } catch (const bip::interprocess_exception& error) {
    throw_tarn("Could not open shared object '{}': {}", name, error.what());
  }
  return block;
}

// The block `name`; null when `initial` is null and there is none.
std::unique_ptr<SharedBlock::Imp> SharedBlock::Imp::open(const std::string& name, Mode mode,
                                                         std::string_view type, std::size_t size,
                                                         std::span<const std::byte>* initial) {
  check_name(name);
  auto imp = std::make_unique<SharedBlock::Imp>();
  imp->name = name;
  if (!attach_segment(imp->segment, name, mode, size)) return nullptr;
  const auto [bytes, count] = imp->find_or_make_block(type, initial);
  if (bytes == nullptr) return nullptr;
  auto* header = reinterpret_cast<BlockHeader*>(bytes);
  if (count < kValueOffset || header->magic != kBlockMagic) {
    throw_tarn("Shared object '{}' has an unknown layout.", name);
  }
  const std::string_view held_type(header->type);
  if (header->size != size || count != kValueOffset + size ||
      held_type != type.substr(0, sizeof header->type - 1)) {
    throw_tarn("Shared object '{}' holds {} bytes of type '{}', not {} bytes of type '{}'.", name,
               header->size, readable_type(header->type), size,
               readable_type(std::string(type).c_str()));
  }
  imp->header = header;
  return imp;
}

SharedBlock::SharedBlock(const std::string& name, Mode mode, std::string_view type,
                         std::span<const std::byte> initial)
    : imp_(Imp::open(name, mode, type, initial.size(), &initial)) {
  if (!imp_) throw_tarn("No shared object named '{}'.", name);
}

SharedBlock::SharedBlock(std::unique_ptr<Imp> imp) : imp_(std::move(imp)) {}

std::optional<SharedBlock> SharedBlock::find(const std::string& name, std::string_view type,
                                             std::size_t size) {
  std::unique_ptr<Imp> imp = Imp::open(name, Mode::open, type, size, nullptr);
  if (!imp) return std::nullopt;
  return SharedBlock(std::move(imp));
}

SharedBlock::SharedBlock(SharedBlock&&) noexcept = default;
SharedBlock& SharedBlock::operator=(SharedBlock&&) noexcept = default;
SharedBlock::~SharedBlock() = default;

const std::string& SharedBlock::name() const { return imp_->name; }
bool SharedBlock::created() const { return imp_->created; }
std::byte* SharedBlock::data() const {
  return reinterpret_cast<std::byte*>(imp_->header) + kValueOffset;
}
std::size_t SharedBlock::size() const { return imp_->header->size; }

SharedBlock::LockResult SharedBlock::lock() {
  pthread_mutex_t* mutex = &imp_->header->mutex;
  const int rc = pthread_mutex_lock(mutex);
  if (rc == 0) [[likely]]
    return LockResult::locked;
  return shared_objects::internal::lock_result(rc, mutex, imp_->name);
}

SharedBlock::LockResult SharedBlock::try_lock_for(std::chrono::milliseconds timeout) {
  return shared_objects::internal::lock_robust_mutex_for(&imp_->header->mutex, imp_->name, timeout);
}

void SharedBlock::unlock() { pthread_mutex_unlock(&imp_->header->mutex); }

bool SharedBlock::remove(const std::string& name) {
  check_name(name);
  return bip::shared_memory_object::remove(segment_name(name).c_str());
}

}  // namespace Tarn

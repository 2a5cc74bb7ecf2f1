#pragma once

// Tarn::Object<T>: a value of type T shared by name between the processes of a machine, read
// and written under a lock that the processes share; Tarn::find_object opens one that exists and
// Tarn::remove_object takes a name away. T must be trivially copyable (no pointers into one
// process's memory make sense in another). A process that dies holding the lock does not block
// the others: the next lock reports owner_died() and the value as the dead holder left it, so
// that the caller can check or repair it. SharedBlock tells the rest.
//
//   Tarn::Object<std::uint64_t> frames("camera0.frames");
//   { auto value = frames.lock(); ++*value; }

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "tarnio/shared_objects/shared_block.h"

namespace Tarn {

template <class T>
class Object {
  static_assert(std::is_trivially_copyable_v<T>, "A shared object holds plain bytes.");
  static_assert(alignof(T) <= alignof(std::max_align_t), "A shared object is at most max-aligned.");

 public:
  // The value, locked while this object lives.
  class Locked {
   public:
    Locked(Locked&& other) noexcept
        : block_(std::exchange(other.block_, nullptr)),
          value_(other.value_),
          owner_died_(other.owner_died_) {}
    Locked& operator=(Locked&&) = delete;
    ~Locked() {
      if (block_ != nullptr) block_->unlock();
    }

    T& operator*() const { return *value_; }
    T* operator->() const { return value_; }
    // True when the previous holder died holding the lock, perhaps half-way through a change.
    bool owner_died() const { return owner_died_; }

   private:
    friend class Object;
    Locked(SharedBlock* block, bool owner_died)
        : block_(block), value_(reinterpret_cast<T*>(block->data())), owner_died_(owner_died) {}

    SharedBlock* block_;
    T* value_;
    bool owner_died_;
  };

  // Opens the object `name`, creating it with the value `initial` when there is none. Throws as
  // SharedBlock's constructor does.
  explicit Object(const std::string& name, const T& initial = T{})
      : Object(name, SharedBlock::Mode::open_or_create, initial) {}
  // Creates the object `name`; throws TarnError when it exists.
  static Object create(const std::string& name, const T& initial = T{}) {
    return Object(name, SharedBlock::Mode::create, initial);
  }
  // Opens the object `name`; throws TarnError when there is none.
  static Object open(const std::string& name) { return Object(name, SharedBlock::Mode::open, T{}); }

  // The object `name` when it exists; see find_object.
  static std::optional<Object> find(const std::string& name) {
    std::optional<SharedBlock> block = SharedBlock::find(name, typeid(T).name(), sizeof(T));
    if (!block) return std::nullopt;
    return Object(std::move(*block));
  }

  const std::string& name() const { return block_.name(); }
  bool created() const { return block_.created(); }

  Locked lock() { return Locked(&block_, block_.lock() == SharedBlock::LockResult::owner_died); }
  // Empty when another holder kept the lock for `timeout`.
  std::optional<Locked> try_lock_for(std::chrono::milliseconds timeout) {
    const SharedBlock::LockResult result = block_.try_lock_for(timeout);
    if (result == SharedBlock::LockResult::timed_out) return std::nullopt;
    return Locked(&block_, result == SharedBlock::LockResult::owner_died);
  }

  T load() { return *lock(); }
  void store(const T& value) { *lock() = value; }

 private:
  Object(const std::string& name, SharedBlock::Mode mode, const T& initial)
      : block_(name, mode, typeid(T).name(), std::as_bytes(std::span(&initial, 1))) {}
  explicit Object(SharedBlock block) : block_(std::move(block)) {}

  SharedBlock block_;
};

// The object `name` when it exists; throws as Object's constructor does for an invalid name or
// another type.
template <class T>
std::optional<Object<T>> find_object(const std::string& name) {
  return Object<T>::find(name);
}

// Takes the name `name` away from its object: see SharedBlock::remove.
inline bool remove_object(const std::string& name) { return SharedBlock::remove(name); }

}  // namespace Tarn

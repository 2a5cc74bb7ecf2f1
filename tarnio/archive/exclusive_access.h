#pragma once

// Kalix::exclusive_access<T>: a value that one user at a time may touch. access() hands out an
// accessor that holds the value's mutex for as long as it lives; a second access() from another
// thread waits until the first accessor is gone. Guards the tags of a stack info, the tag map
// and each tag value.
//
// Copying or moving an exclusive_access copies or moves the value under the source's lock; the
// mutex itself is never shared. access() on the same object twice in one thread deadlocks, as
// with any non-recursive mutex.

#include <mutex>
#include <utility>

namespace Kalix {

template <class T>
class exclusive_access {
 public:
  // The value, reachable while the accessor lives; movable, not copyable.
  template <class V>
  class basic_accessor {
   public:
    basic_accessor(std::mutex& mutex, V& value) : lock_(mutex), value_(&value) {}
    V& operator*() const { return *value_; }
    V* operator->() const { return value_; }

   private:
    std::unique_lock<std::mutex> lock_;
    V* value_;
  };
  using accessor = basic_accessor<T>;
  using const_accessor = basic_accessor<const T>;

  exclusive_access() = default;
  explicit exclusive_access(T value) : value_(std::move(value)) {}
  exclusive_access(const exclusive_access& other) : value_(*other.access()) {}
  exclusive_access(exclusive_access&& other) : value_(std::move(*other.access())) {}
  exclusive_access& operator=(const exclusive_access& other) {
    if (this != &other) {
      T copy = *other.access();
      *access() = std::move(copy);
    }
    return *this;
  }
  exclusive_access& operator=(exclusive_access&& other) {
    if (this != &other) {
      T moved = std::move(*other.access());
      *access() = std::move(moved);
    }
    return *this;
  }

  accessor access() { return accessor(mutex_, value_); }
  const_accessor access() const { return const_accessor(mutex_, value_); }

  // The value without taking the lock: only for a caller that owns the object alone (during
  // construction, or in a single-threaded part of its life).
  T& unguarded() { return value_; }
  const T& unguarded() const { return value_; }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

}  // namespace Kalix

#include "tarnio/props/prop.h"

#include <fmt/format.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "tarnio/arrays/data_type.h"
#include "tarnio/props/compare.h"
#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/internal/type_mismatch.h"
#include "tarnio/strings/internal/encoding.h"

using Tarn::props::internal::visit_element;

namespace {

constexpr const char* kLocked = "Property is locked.";

void throw_if_locked(const TProp& value) {
  if (value.is_locked()) throw std::runtime_error(kLocked);
}

// The element of a rank-0 array (a single cell or struct) is at position 0 in any rank.
std::uint64_t single_index(const TPropSize& position) {
  for (std::size_t i = 0; i < position.size(); ++i) {
    if (position[i] != 0) {
      throw std::runtime_error(fmt::format("Index {} out of bounds. ({} >= 1)", i, position[i]));
    }
  }
  return 0;
}

template <typename T, typename Prop>
auto& element_at(Prop& value, const char* kind, std::uint64_t i0, std::uint64_t i1,
                 std::uint64_t i2, std::uint64_t i3) {
  auto* array = const_cast<TProp&>(value).template get_if<TProparray<T>>();
  if (array == nullptr) {
    throw std::runtime_error(fmt::format("Type mismatch: expected '{}' type.", kind));
  }
  const TPropSize position = TProparrayBase::val2pos(i0, i1, i2, i3);
  const std::uint64_t index =
      array->get_rank() == 0 ? single_index(position) : array->get_idx(position);
  return (*array)[static_cast<std::size_t>(index)];
}

template <typename T>
T* held_as(placeholder& content) noexcept {
  return content.type() == typeid(T) ? static_cast<T*>(content.object()) : nullptr;
}

bool holds_values(const placeholder& content) noexcept {
  const std::type_info& type = content.type();
  return type == typeid(TPropstruct) || type == typeid(TProparray<TProp>) ||
         type == typeid(TProparray<TPropstruct>);
}

// Calls f(TProp&) for every value held directly in `content`: the members of a struct, the
// elements of a cell array that owns them, the members of every struct of a struct array.
template <typename F>
void for_each_value(placeholder& content, F&& f) {
  if (auto* members = held_as<TPropstruct>(content)) {
    for (auto& member : *members) f(member.second);
  } else if (auto* cells = held_as<TProparray<TProp>>(content)) {
    if (cells->is_borrowed()) return;
    for (TProp& cell : *cells) f(cell);
  } else if (auto* records = held_as<TProparray<TPropstruct>>(content)) {
    for (TPropstruct& record : *records) {
      for (auto& member : record) f(member.second);
    }
  }
}

// The copies still to be filled while a deep copy runs on this thread (see the copy
// constructor); null when none runs.
thread_local std::vector<std::pair<TProp*, const placeholder*>>* pending_copies = nullptr;

}  // namespace

TProp::TProp() noexcept = default;

// Trees nest without limit, so copying and destroying work from a list on the heap rather than
// by recursion, which would run out of call stack. A copy of a value nested inside a copy that
// is running takes its info and id and queues its content; the outermost copy fills the queue.
// The queued values stay in place: clone() builds each container's elements where they remain.
TProp::TProp(const TProp& other) : info_(other.info_), id_(other.id_) {
  if (other.content_ == nullptr) return;
  if (pending_copies != nullptr) {
    pending_copies->emplace_back(this, other.content_.get());
    return;
  }
  std::vector<std::pair<TProp*, const placeholder*>> pending;
  pending_copies = &pending;
  try {
    content_ = other.content_->clone();
    while (!pending.empty()) {
      const auto [copy, original] = pending.back();
      pending.pop_back();
      copy->content_ = original->clone();
    }
  } catch (...) {
    pending_copies = nullptr;
    throw;
  }
  pending_copies = nullptr;
}

TProp::TProp(TProp&& other) noexcept
    : content_(std::move(other.content_)), info_(std::move(other.info_)), id_(other.id_) {}

TProp& TProp::operator=(const TProp& other) {
  if (this != &other) *this = TProp(other);
  return *this;
}

TProp& TProp::operator=(TProp&& other) {
  throw_if_locked(*this);
  content_ = std::move(other.content_);
  info_ = std::move(other.info_);
  id_ = other.id_;
  return *this;
}

// Nested contents are taken out before their container goes, so that each one dies without
// values of its own inside. Should the list not grow, a content dies in place, by recursion.
TProp::~TProp() {
  if (content_ == nullptr || !holds_values(*content_)) return;
  std::vector<std::unique_ptr<placeholder>> pending;
  pending.push_back(std::move(content_));
  while (!pending.empty()) {
    std::unique_ptr<placeholder> next = std::move(pending.back());
    pending.pop_back();
    for_each_value(*next, [&](TProp& value) {
      if (value.content_ == nullptr || !holds_values(*value.content_)) return;
      try {
        pending.push_back(std::move(value.content_));
      } catch (const std::bad_alloc&) {
      }
    });
  }
}

TProp::TProp(char* text) : TProp(static_cast<const char*>(text)) {}
TProp::TProp(const char* text) : TProp(TPropstring(text != nullptr ? text : "")) {}
TProp::TProp(wchar_t* text) : TProp(static_cast<const wchar_t*>(text)) {}
TProp::TProp(const wchar_t* text)
    : TProp(TPropstring(text != nullptr ? Tarn::strings::internal::to_utf8(text) : "")) {}
TProp::TProp(const std::string& text) : TProp(TPropstring(text)) {}
TProp::TProp(const std::wstring& text)
    : TProp(TPropstring(Tarn::strings::internal::to_utf8(text))) {}

TProp::TProp(TPropstruct value)
    : content_(std::make_unique<holder<TPropstruct>>(std::move(value))) {}
TProp::TProp(TPropstring value)
    : content_(std::make_unique<holder<TPropstring>>(std::move(value))) {}
TProp::TProp(TPropempty) : content_(std::make_unique<holder<TPropempty>>(TPropempty{})) {}

TProp TProp::array(DataType element, const TPropSize& shape) {
  TProp result;
  if (!visit_element(element, [&](auto tag) {
        using T = typename decltype(tag)::type;
        result.set_array(TProparray<T>(shape, element));
      })) {
    throw std::runtime_error("Type unknown or incompatible with property arrays.");
  }
  return result;
}

TProp TProp::cell(const TPropSize& shape) { return array(Tarn::dt::cell, shape); }

DataType TProp::type_code() const noexcept {
  return content_ != nullptr ? content_->type_code() : Tarn::dt::none;
}

const std::type_info& TProp::type() const noexcept {
  return content_ != nullptr ? content_->type() : typeid(void);
}

bool TProp::empty() const noexcept { return size() == 0; }

std::size_t TProp::size() const noexcept {
  if (content_ == nullptr) return 0;
  if (const TProparrayBase* array = content_->array()) return array->element_count();
  if (const auto* text = get_if<TPropstring>()) return text->to_utf8().size();
  return type_code() == Tarn::dt::struct_ ? 1 : 0;
}

void* TProp::value_ptr() noexcept { return content_ != nullptr ? content_->value_ptr() : nullptr; }

const void* TProp::value_ptr() const noexcept {
  return content_ != nullptr ? content_->value_ptr() : nullptr;
}

TProparrayBase* TProp::get_arr(bool throw_if_not) {
  if (is_array()) return content_->array();
  if (throw_if_not) throw std::runtime_error("Type mismatch: expected 'array' type.");
  return nullptr;
}

const TProparrayBase* TProp::get_arr(bool throw_if_not) const {
  return const_cast<TProp*>(this)->get_arr(throw_if_not);
}

void TProp::own() {
  std::vector<TProp*> pending{this};
  while (!pending.empty()) {
    TProp& value = *pending.back();
    pending.pop_back();
    if (value.content_ == nullptr) continue;
    if (TProparrayBase* array = value.content_->array()) {
      visit_element(array->element_type(), [&](auto tag) {
        static_cast<TProparray<typename decltype(tag)::type>*>(array)->own();
      });
    }
    for_each_value(*value.content_, [&](TProp& nested) { pending.push_back(&nested); });
  }
}

void TProp::clear() {
  throw_if_locked(*this);
  content_.reset();
}

void TProp::swap(TProp& other) noexcept {
  std::swap(content_, other.content_);
  std::swap(info_, other.info_);
  std::swap(id_, other.id_);
  std::swap(locked_, other.locked_);
}

void TProp::swap_value(TProp& other) {
  throw_if_locked(*this);
  throw_if_locked(other);
  std::swap(content_, other.content_);
}

const std::shared_ptr<TPropInfo>& TProp::get_info() {
  if (info_ == nullptr) info_ = std::make_shared<TPropInfo>();
  return info_;
}

TProp& TProp::operator()(std::uint64_t i0, std::uint64_t i1, std::uint64_t i2, std::uint64_t i3) {
  return element_at<TProp>(*this, "cell", i0, i1, i2, i3);
}

const TProp& TProp::operator()(std::uint64_t i0, std::uint64_t i1, std::uint64_t i2,
                               std::uint64_t i3) const {
  return element_at<TProp>(*this, "cell", i0, i1, i2, i3);
}

TPropstruct& TProp::s(std::uint64_t i0, std::uint64_t i1, std::uint64_t i2, std::uint64_t i3) {
  if (auto* single = get_if<TPropstruct>()) {
    single_index(TProparrayBase::val2pos(i0, i1, i2, i3));
    return *single;
  }
  return element_at<TPropstruct>(*this, "struct", i0, i1, i2, i3);
}

const TPropstruct& TProp::s(std::uint64_t i0, std::uint64_t i1, std::uint64_t i2,
                            std::uint64_t i3) const {
  return const_cast<TProp*>(this)->s(i0, i1, i2, i3);
}

bool TProp::operator==(const TProp& other) const { return Tarn::props::is_equal(*this, other); }

void TProp::set_content(std::unique_ptr<placeholder> content) {
  throw_if_locked(*this);
  content_ = std::move(content);
}

void TProp::throw_type_mismatch(const std::type_info& wanted) {
  Tarn::props::internal::throw_type_mismatch(wanted);
}

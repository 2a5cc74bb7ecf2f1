#include "tarnio/props/prop.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>

#include "tarnio/arrays/data_type.h"
#include "tarnio/props/compare.h"
#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/type_names.h"
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

}  // namespace

TProp::TProp() noexcept = default;

TProp::TProp(const TProp& other)
    : content_(other.content_ != nullptr ? other.content_->clone() : nullptr),
      info_(other.info_),
      id_(other.id_) {}

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

TProp::~TProp() = default;

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
  TProparrayBase* array = content_ != nullptr ? content_->array() : nullptr;
  if (array == nullptr) {
    if (auto* members = get_if<TPropstruct>()) {
      for (auto& member : *members) member.second.own();
    }
    return;
  }
  visit_element(array->element_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    auto& typed = *static_cast<TProparray<T>*>(content_->object());
    typed.own();
    if constexpr (std::is_same_v<T, TProp>) {
      for (TProp& element : typed) element.own();
    } else if constexpr (std::is_same_v<T, TPropstruct>) {
      for (TPropstruct& element : typed) {
        for (auto& member : element) member.second.own();
      }
    }
  });
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
  std::string name = "unknown";
  if (wanted == typeid(TPropstruct))
    name = "struct";
  else if (wanted == typeid(TPropstring))
    name = "char";
  else if (wanted == typeid(TPropempty))
    name = "empty";
  for (const auto& entry : Tarn::props::type_names()) {
    visit_element(entry.first, [&](auto tag) {
      if (wanted == typeid(TProparray<typename decltype(tag)::type>)) name = entry.second;
    });
  }
  throw std::runtime_error(fmt::format("Type mismatch: expected '{}' type.", name));
}

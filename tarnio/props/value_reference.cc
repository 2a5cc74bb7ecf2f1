#include "tarnio/props/value_reference.h"

#include "tarnio/props/internal/dispatch.h"
#include "tarnio/props/internal/type_mismatch.h"

namespace Tarn::props {

ValueReference::ValueReference(TProp& value) : ValueReference(value.content(), value.get_info()) {}

ValueReference::ValueReference(placeholder* content, std::shared_ptr<TPropInfo> info)
    : object_(content != nullptr ? content->object() : nullptr),
      type_(content != nullptr ? content->type_code() : dt::none),
      info_(std::move(info)) {}

ValueReference::ValueReference(void* object, DataType type, std::shared_ptr<TPropInfo> info)
    : object_(object), type_(type), info_(std::move(info)) {}

bool ValueReference::holds(const std::type_info& type) const noexcept {
  switch (type_) {
    case dt::struct_:
      return type == typeid(TPropstruct);
    case dt::char_:
      return type == typeid(TPropstring);
    case dt::empty:
      return type == typeid(TPropempty);
    default:
      break;
  }
  bool same = false;
  internal::visit_element(type_ & dt::name_mask, [&](auto tag) {
    same = type == typeid(TProparray<typename decltype(tag)::type>);
  });
  return same;
}

void ValueReference::throw_type_mismatch(const std::type_info& wanted) const {
  internal::throw_type_mismatch(wanted);
}

}  // namespace Tarn::props

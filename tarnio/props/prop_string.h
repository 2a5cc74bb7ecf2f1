#pragma once

// TPropstring, the "char" value of the property tree: text held as UTF-8 bytes, as given (the
// tree does not validate it; the XML and JSON forms do).

#include <string>
#include <utility>

#include "tarnio/export.h"

class TARNIO_EXPORT TPropstring {
 public:
  TPropstring() = default;
  explicit TPropstring(std::string utf8) : text_(std::move(utf8)) {}

  const std::string& to_utf8() const noexcept { return text_; }
  std::string& to_utf8() noexcept { return text_; }
  void from_utf8(const std::string& utf8) { text_ = utf8; }
  void from_utf8(const char* utf8) { text_ = utf8 != nullptr ? utf8 : ""; }

  bool operator==(const TPropstring&) const = default;

 private:
  std::string text_;
};

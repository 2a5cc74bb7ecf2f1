#include <cstddef>
#include <string>
#include <vector>

#include "tarnio/json/internal/text_writer.h"
#include "tarnio/json/read_write.h"

namespace JSON {
namespace {

// Walks depth-first with its own stack of open lists and objects, so that the depth of a tree
// costs heap, not call stack.
class Writer {
 public:
  explicit Writer(int indent) : out_(indent) {}

  std::string write(const Value& root) {
    begin(root);
    while (!open_.empty()) {
      Open& top = open_.back();
      if (top.next == top.size) {
        const bool is_object = top.is_object;
        open_.pop_back();
        is_object ? out_.end_object() : out_.end_list();
        continue;
      }
      const std::size_t at = top.next++;
      if (top.is_object) {
        const Member& member = top.members[at];
        out_.key(member.key());
        begin(member.value());
      } else {
        begin(top.items[at]);
      }
    }
    return out_.take();
  }

 private:
  // A list (items) or an object (members) being written.
  struct Open {
    bool is_object;
    const Value* items;
    const Member* members;
    std::size_t size;
    std::size_t next;
  };

  // Writes a scalar whole, or opens a container.
  void begin(const Value& value) {
    switch (value.kind()) {
      case Kind::null:
        out_.null();
        return;
      case Kind::boolean:
        out_.boolean(value.get_bool());
        return;
      case Kind::number:
        if (value.is_int64()) {
          out_.number(value.get_int64());
        } else if (value.is_uint64()) {
          out_.number(value.get_uint64());
        } else {
          out_.number(value.get_double());
        }
        return;
      case Kind::string:
        out_.string(value.get_string());
        return;
      case Kind::list: {
        const auto items = value.items();
        out_.begin_list();
        open_.push_back({false, items.data(), nullptr, items.size(), 0});
        return;
      }
      case Kind::object: {
        const auto members = value.members();
        out_.begin_object();
        open_.push_back({true, nullptr, members.data(), members.size(), 0});
        return;
      }
    }
  }

  internal::TextWriter out_;
  std::vector<Open> open_;
};

}  // namespace

std::string write(const Value& value, int indent) { return Writer(indent).write(value); }

}  // namespace JSON

// Fuzz target for property paths. The input is a path, resolved against a small fixed tree (a
// struct holding every kind of entry) and against "none", without and with creation, through
// every form of the accessors. The pointer forms never throw; the throwing forms let only
// std::runtime_error out, with "Invalid property path '<path>': <message>" where the message is
// the one the pointer forms report. Further oracles:
// - all forms agree on the entry reached, and TPropstruct::getp on a struct agrees with
//   TProp::getp on the value holding it, with and without creation;
// - resolving without creation changes nothing; what resolves without creation resolves to the
//   same entry with it and creates nothing; what creation reaches, it reaches again without;
// - tarn_prop_is_valid_path says whether creation on "none" succeeds.

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "fuzz/fuzz_support.h"
#include "tarnio/props/error_sink.h"
#include "tarnio/props/path.h"
#include "tarnio/props/prop.h"

namespace {

namespace dt = Tarn::dt;

[[noreturn]] void fail(std::string_view what, std::string_view path, std::string_view detail) {
  tarnio_fuzz::fail("prop_path_fuzzer", what, fmt::format("path: {}\n{}", path, detail));
}

// s: {x: 7}, c: 2x3 cells with c{1,2} = "deep" and c{0,1} = {y: 1.5}, v: 3x2 doubles, w: 4
// doubles, r: 2 structs with r(1).y = 5, one: a single cell holding {z: "in"}, none, num: 3.0,
// str: "text", e: "empty".
TProp fixed_tree() {
  TPropstruct inner;
  inner.set("x", TProp(7));
  TPropstruct root;
  root.set("s", TProp(inner));
  TProp cells = TProp::cell({2, 3});
  cells(1, 2) = TProp("deep");
  TPropstruct in_cell;
  in_cell.set("y", TProp(1.5));
  cells(0, 1) = TProp(in_cell);
  root.set("c", std::move(cells));
  root.set("v", TProp::array(dt::double_, {3, 2}));
  root.set("w", TProp::array(dt::double_, {4}));
  TProparray<TPropstruct> records(TPropSize{2});
  records[1].set("y", TProp(5));
  root.set("r", TProp(std::move(records)));
  TProp single = TProp::cell({});
  TPropstruct in_single;
  in_single.set("z", TProp("in"));
  single(0) = TProp(in_single);
  root.set("one", std::move(single));
  root.set("none", TProp());
  root.set("num", TProp(3.0));
  root.set("str", TProp("text"));
  root.set("e", TProp(TPropempty{}));
  return TProp(std::move(root));
}

struct Outcome {
  TProp* entry = nullptr;
  TPropSize position;
  std::string error;
};

std::string describe(const Outcome& outcome) {
  return fmt::format("entry {}, position ({}), error '{}'", static_cast<void*>(outcome.entry),
                     fmt::join(outcome.position, ","), outcome.error);
}

bool same(const Outcome& a, const Outcome& b) {
  return a.entry == b.entry && a.position == b.position && a.error == b.error;
}

Outcome resolve_ex(TProp& root, std::string_view path, bool create) {
  Outcome outcome;
  try {
    auto [entry, position] = tarn_prop_getp_ex(&root, path, &outcome.error, create);
    outcome.entry = entry;
    outcome.position = std::move(position);
  } catch (const std::exception& error) {
    fail("tarn_prop_getp_ex threw", path, error.what());
  }
  if ((outcome.entry == nullptr) == outcome.error.empty() ||
      (outcome.entry == nullptr && !outcome.position.empty())) {
    fail("tarn_prop_getp_ex gave an inconsistent result", path, describe(outcome));
  }
  return outcome;
}

// What the pointer forms give for a walk with this outcome.
Outcome pointer_form(const Outcome& walk) {
  if (walk.entry == nullptr || walk.position.empty()) return {walk.entry, {}, walk.error};
  return {nullptr, {}, "Path ended at value array element."};
}

// Runs a pointer form with a string sink and with ignore_errors.
template <class Getp>
Outcome run_pointer(std::string_view what, std::string_view path, Getp getp) {
  Outcome outcome;
  try {
    outcome.entry = const_cast<TProp*>(getp(&outcome.error));
    if (getp(Tarn::props::ignore_errors) != outcome.entry) {
      fail(what, path, "ignore_errors gave another entry than a string sink");
    }
  } catch (const std::exception& error) {
    fail(what, path, std::string("threw: ") + error.what());
  }
  return outcome;
}

// Runs a throwing form and checks it against the pointer form's outcome.
template <class Getp>
void check_throwing(std::string_view what, std::string_view path, const Outcome& expected,
                    Getp getp) {
  try {
    const TProp* entry = &getp();
    if (entry != expected.entry) fail(what, path, "returned another entry than the pointer form");
  } catch (const std::runtime_error& error) {
    const std::string message = fmt::format("Invalid property path '{}': {}", path, expected.error);
    if (expected.entry != nullptr || error.what() != message) {
      fail(what, path, fmt::format("threw '{}' for {}", error.what(), describe(expected)));
    }
  } catch (const std::exception& error) {
    fail(what, path, std::string("threw another exception: ") + error.what());
  }
}

void check_without_creation(const TProp& original, TProp& root, std::string_view path,
                            const Outcome& walk) {
  const Outcome expected = pointer_form(walk);
  const TProp& const_root = root;
  const Outcome mutable_form = run_pointer(
      "getp(path, error)", path, [&](std::string* error) { return root.getp(path, error, false); });
  const Outcome const_form = run_pointer("const getp(path, error)", path, [&](std::string* error) {
    return const_root.getp(path, error);
  });
  if (!same(mutable_form, expected) || !same(const_form, expected)) {
    fail("pointer forms disagree with tarn_prop_getp_ex", path,
         describe(walk) + "\n" + describe(mutable_form) + "\n" + describe(const_form));
  }
  check_throwing("getp(path)", path, expected, [&]() -> const TProp& { return root.getp(path); });
  check_throwing("const getp(path)", path, expected,
                 [&]() -> const TProp& { return const_root.getp(path); });
  if (auto* record = root.get_if<TPropstruct>()) {
    const Outcome relative =
        run_pointer("TPropstruct::getp(path, error)", path,
                    [&](std::string* error) { return std::as_const(*record).getp(path, error); });
    if (!same(relative, expected)) {
      fail("TPropstruct::getp disagrees with TProp::getp", path,
           describe(expected) + "\n" + describe(relative));
    }
    check_throwing("TPropstruct::getp(path)", path, expected,
                   [&]() -> const TProp& { return record->getp(path); });
  }
  if (!(root == original)) fail("resolving without creation changed the tree", path, "");
}

void check_root(const TProp& original, std::string_view path) {
  TProp tree = original;
  const Outcome found = resolve_ex(tree, path, false);
  check_without_creation(original, tree, path, found);

  const Outcome made = resolve_ex(tree, path, true);
  if (found.entry != nullptr) {
    if (!same(made, found)) {
      fail("creation reached another entry than plain resolution", path,
           describe(found) + "\n" + describe(made));
    }
    if (!(tree == original)) fail("creation changed a tree that held the path", path, "");
  }

  // TPropstruct::getp creating below a struct does what TProp::getp does on its value.
  if (original.get_if<TPropstruct>() != nullptr) {
    TProp copy = original;
    std::string error;
    TProp* relative = nullptr;
    try {
      relative = copy.get<TPropstruct>().getp(path, &error, true);
    } catch (const std::exception& thrown) {
      fail("TPropstruct::getp with creation threw", path, thrown.what());
    }
    const Outcome expected = pointer_form(made);
    if ((relative == nullptr) != (expected.entry == nullptr) || error != expected.error ||
        !(copy == tree)) {
      fail("TPropstruct::getp with creation disagrees with TProp::getp", path,
           describe(expected) + "\nrelative error '" + error + "'");
    }
  }

  if (made.entry == nullptr) return;
  const Outcome again = resolve_ex(tree, path, false);
  if (!same(again, made)) {
    fail("an entry made by creation is not reached without it", path,
         describe(made) + "\n" + describe(again));
  }
  const TProp settled = tree;
  check_without_creation(settled, tree, path, again);
  check_throwing("getp(path, true)", path, pointer_form(again),
                 [&]() -> const TProp& { return tree.getp(path, true); });
  if (!(tree == settled)) fail("creating an existing path changed the tree", path, "");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view path(reinterpret_cast<const char*>(data), size);
  static const TProp tree = fixed_tree();
  static const TProp none;
  check_root(tree, path);
  check_root(none, path);

  TProp scratch;
  std::string error;
  bool created = false;
  try {
    created = tarn_prop_getp_ex(&scratch, path, &error, true).first != nullptr;
  } catch (const std::exception& thrown) {
    fail("tarn_prop_getp_ex threw", path, thrown.what());
  }
  if (tarn_prop_is_valid_path(path) != created) {
    fail("tarn_prop_is_valid_path disagrees with creation on none", path, error);
  }
  return 0;
}

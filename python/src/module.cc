// The extension module tarnio._tarnio: TBF files and their stacks for the Python package, which
// adds numpy's axis order, dtypes, indexing and Dask on top. Axes here are the library's (axis 0
// fastest). Every call that moves data releases the GIL and holds the file's lock instead, so
// Python threads sharing a file take turns.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "python/src/error_translation.h"
#include "tarnio/arrays/data_type.h"
#include "tarnio/arrays/region.h"
#include "tarnio/bf/file_interface.h"
#include "tarnio/json/read_write.h"
#include "tarnio/ome/root.h"
#include "tarnio/props/json.h"

namespace py = pybind11;
using Tarn::bf::DiskFile;
using Tarn::bf::FileInterface;
using Tarn::bf::StackImp;

namespace tarnio_python {
namespace {

// One open file and the lock its stacks share: every call that changes the file or moves data
// holds it.
struct OpenFile {
  std::shared_ptr<FileInterface> file;
  std::mutex mutex;
};

struct Stack {
  std::shared_ptr<OpenFile> owner;
  std::shared_ptr<StackImp> stack;
};

// Runs `work` without the GIL, holding the file's lock.
template <class Work>
auto locked(OpenFile& file, Work&& work) {
  py::gil_scoped_release release;
  const std::lock_guard lock(file.mutex);
  return work();
}

DiskFile::Mode mode_of(const std::string& mode) {
  if (mode == "r") return DiskFile::Mode::read;
  if (mode == "w") return DiskFile::Mode::write;
  if (mode == "a") return DiskFile::Mode::append;
  throw py::value_error("mode must be 'r', 'w' or 'a', not '" + mode + "'");
}

std::shared_ptr<OpenFile> open_file(const std::filesystem::path& path, const std::string& mode,
                                    std::uint64_t threads) {
  auto opened = std::make_shared<OpenFile>();
  opened->file = Tarn::create_file();
  opened->file->set_threading_support({threads, {}});
  const DiskFile::Mode disk_mode = mode_of(mode);
  locked(*opened, [&] {
    try {
      opened->file->open(path, disk_mode);
    } catch (const std::filesystem::filesystem_error&) {
      throw;
    } catch (const std::runtime_error& refused) {
      // Reading, the library refuses a file's content (no header, a broken chain) this way.
      if (disk_mode == DiskFile::Mode::write) throw;
      throw DamagedFile(refused.what());
    }
  });
  return opened;
}

// A C-contiguous array of `count` elements of `type`, checked before the library touches it.
void check_buffer(const py::array& array, std::uint64_t count, DataType type, bool writing) {
  if (!(array.flags() & py::array::c_style)) throw py::value_error("array must be C-contiguous");
  if (writing && !array.writeable()) throw py::value_error("array is read-only");
  if (static_cast<std::uint64_t>(array.nbytes()) != count * tarn_dt_get_size(type))
    throw py::value_error("array size does not match the stack's selection");
}

std::map<std::string, std::string> tags_as_json(StackImp& stack) {
  std::map<std::string, std::string> tags;
  for (const auto& name : stack.tags()) {
    const auto& value = stack.tag(name);
    if (const auto* prop = std::get_if<TProp>(&value))
      tags[name] = tarn_export_json(*prop);
    else
      tags[name] = JSON::write(std::get<JSON::Value>(value));
  }
  return tags;
}

std::vector<std::string> units_as_text(const StackImp& stack) {
  std::vector<std::string> units;
  for (std::size_t axis = 0; axis < stack.shape().size(); ++axis)
    units.push_back(stack.units(axis).to_string());
  return units;
}

void set_units(StackImp& stack, const std::vector<std::string>& units) {
  if (units.size() != stack.shape().size()) throw py::value_error("one unit per axis expected");
  for (std::size_t axis = 0; axis < units.size(); ++axis)
    stack.set_units(axis, Tarn::units::RuntimeValue::parse(units[axis]));
}

// The element types a stack can store, by name; RGB triples and RGB32 have no name of their
// own and are called "rgb" and "rgb32".
std::map<std::string, DataType> element_types() {
  std::map<std::string, DataType> types;
  for (const DataType type : Tarn::arrays::all_data_types()) {
    if (tarn_dt_get_size(type) == 0) continue;
    if (type == Tarn::dt::rgb)
      types["rgb"] = type;
    else if (type == Tarn::dt::rgb32)
      types["rgb32"] = type;
    else
      types[tarn_dt_get_name(type)] = type;
  }
  return types;
}

void bind_file(py::module_& module) {
  py::class_<OpenFile, std::shared_ptr<OpenFile>>(module, "File")
      .def(py::init(&open_file), py::arg("path"), py::arg("mode"), py::arg("threads"))
      .def("close", [](OpenFile& f) { locked(f, [&] { f.file->close(); }); })
      .def_property_readonly("is_open", [](const OpenFile& f) { return f.file->is_open(); })
      .def_property_readonly("writable", [](const OpenFile& f) { return f.file->is_writable(); })
      .def_property(
          "description", [](const OpenFile& f) { return f.file->description(); },
          [](OpenFile& f, const std::string& d) { locked(f, [&] { f.file->set_description(d); }); })
      .def_property_readonly("metadata", [](const OpenFile& f) { return f.file->metadata(); })
      .def("set_metadata",
           [](OpenFile& f, const std::string& key, const std::string& value) {
             locked(f, [&] { f.file->set_metadata(key, value); });
           })
      .def("set_threads",
           [](OpenFile& f, std::uint64_t threads) {
             locked(f, [&] { f.file->set_threading_support({threads, {}}); });
           })
      .def("ome_json",
           [](OpenFile& f) {
             return locked(f, [&] { return JSON::write(f.file->get_OME_root().node()); });
           })
      .def("__len__", [](const OpenFile& f) { return f.file->number_of_stacks(); })
      .def("stack",
           [](const std::shared_ptr<OpenFile>& f, std::size_t index) {
             return Stack{f, f->file->stack(index)};
           })
      .def(
          "add_stack",
          [](const std::shared_ptr<OpenFile>& f, DataType type,
             const std::vector<std::uint64_t>& sizes, std::uint32_t compression,
             std::uint32_t level, std::uint64_t flush_block_size,
             std::optional<std::uint64_t> chunk_samples) {
            return locked(*f, [&] {
              auto stack = f->file->add_stack(type, sizes);
              if (compression != 0)
                stack->set_compression(static_cast<StackImp::Compression>(compression), level);
              if (flush_block_size != 0) stack->set_flush_block_size(flush_block_size);
              if (chunk_samples) stack->set_chunk_wise(true, *chunk_samples);
              return Stack{f, stack};
            });
          },
          py::arg("type"), py::arg("sizes"), py::arg("compression"), py::arg("level"),
          py::arg("flush_block_size"), py::arg("chunk_samples"));
}

void bind_stack(py::module_& module) {
  py::class_<Stack>(module, "Stack")
      .def_property_readonly("type", [](const Stack& s) { return s.stack->type(); })
      .def_property_readonly("sizes", [](const Stack& s) { return s.stack->shape(); })
      .def_property(
          "name", [](const Stack& s) { return s.stack->name(); },
          [](Stack& s, const std::string& name) { s.stack->set_name(name); })
      .def_property(
          "description", [](const Stack& s) { return s.stack->description(); },
          [](Stack& s, const std::string& text) { s.stack->set_description(text); })
      .def_property(
          "lengths", [](const Stack& s) { return s.stack->lengths(); },
          [](Stack& s, const std::vector<double>& v) { s.stack->set_lengths(v); })
      .def_property(
          "offsets", [](const Stack& s) { return s.stack->offsets(); },
          [](Stack& s, const std::vector<double>& v) { s.stack->set_offsets(v); })
      .def_property(
          "labels", [](const Stack& s) { return s.stack->labels(); },
          [](Stack& s, const std::vector<std::string>& v) { s.stack->set_labels(v); })
      .def_property(
          "units", [](const Stack& s) { return units_as_text(*s.stack); },
          [](Stack& s, const std::vector<std::string>& v) { set_units(*s.stack, v); })
      .def_property_readonly("tags", [](const Stack& s) { return tags_as_json(*s.stack); })
      .def("set_tag",
           [](Stack& s, const std::string& name, const std::string& json_text) {
             s.stack->set_tag(name, JSON::read(json_text));
           })
      .def_property_readonly(
          "compression",
          [](const Stack& s) { return static_cast<std::uint32_t>(s.stack->compression()); })
      .def_property_readonly("compression_level",
                             [](const Stack& s) { return s.stack->compression_level(); })
      .def_property_readonly("flush_block_size",
                             [](const Stack& s) { return s.stack->flush_block_size(); })
      .def_property_readonly("chunk_samples",
                             [](const Stack& s) { return s.stack->chunk_samples(); })
      .def_property_readonly("committed", [](const Stack& s) { return s.stack->is_committed(); })
      .def_property_readonly("samples_written",
                             [](const Stack& s) { return s.stack->samples_available(); })
      .def("read",
           [](Stack& s, py::array out, DataType type) {
             const std::uint64_t count = s.stack->number_of_elements();
             check_buffer(out, count, type, true);
             void* data = out.mutable_data();
             locked(*s.owner, [&] {
               if (count != 0) s.stack->read(0, count, data, type);
             });
           })
      .def("read_region",
           [](Stack& s, std::vector<std::uint64_t> start, std::vector<std::uint64_t> size,
              std::vector<std::uint64_t> step, py::array out, DataType type) {
             const Tarn::arrays::Region region(std::move(start), std::move(size), std::move(step));
             check_buffer(out, region.number_of_elements(), type, true);
             void* data = out.mutable_data();
             locked(*s.owner, [&] {
               if (region.number_of_elements() != 0) s.stack->read_region(region, data, type);
             });
           })
      .def("write",
           [](Stack& s, const py::array& samples, DataType type) {
             const auto count = static_cast<std::uint64_t>(samples.size());
             check_buffer(samples, count, type, false);
             const void* data = samples.data();
             const auto bytes = static_cast<std::uint64_t>(samples.nbytes());
             locked(*s.owner, [&] { s.stack->write(data, bytes, type); });
           })
      .def("commit", [](Stack& s) { locked(*s.owner, [&] { s.stack->commit(); }); });
}

}  // namespace
}  // namespace tarnio_python

PYBIND11_MODULE(_tarnio, module) {
  module.doc() = "TBF files and stacks in the library's own axis order; use the tarnio package.";
  tarnio_python::register_error_translation(module);
  module.def("element_types", &tarnio_python::element_types);
  tarnio_python::bind_file(module);
  tarnio_python::bind_stack(module);
}

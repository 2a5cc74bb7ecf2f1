#include "python/src/error_translation.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include "tarnio/errors/internal/os_error.h"
#include "tarnio/errors/tarn_error.h"

namespace py = pybind11;

namespace tarnio_python {
namespace {

// The highest errno value the C library knows.
constexpr int kLastErrno = EHWPOISON;

bool ends_with(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The errno whose text ends `message` (the library appends it to every failure of the
// system), 0 for none; -1 when the system named no text.
int errno_of(const std::string& message) {
  for (int code = 1; code <= kLastErrno; ++code) {
    if (ends_with(message, ": " + Tarn::errors::internal::os_error_text(code))) return code;
  }
  return ends_with(message, ": Unknown system error.") ? -1 : 0;
}

void set_os_error(int code, const std::string& message) {
  if (code > 0) {
    py::object error = py::reinterpret_steal<py::object>(
        PyObject_CallFunction(PyExc_OSError, "is", code, message.c_str()));
    if (error) PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
  } else {
    PyErr_SetString(PyExc_OSError, message.c_str());
  }
}

}  // namespace

void register_error_translation(py::module_& module) {
  static py::exception<DamagedFile> error(module, "Error", PyExc_Exception);
  error.doc() = "A damaged file, or one that is no TBF file.";
  py::register_exception_translator([](std::exception_ptr pending) {
    try {
      if (pending) std::rethrow_exception(pending);
    } catch (const TarnError& failure) {
      std::string message = failure.message();
      if (failure.oserr_id() > 0) message += ": " + failure.oserr();
      const int code = failure.oserr_id() > 0 ? failure.oserr_id() : errno_of(message);
      if (code != 0)
        set_os_error(code, message);
      else
        error(message.c_str());
    } catch (const DamagedFile& damaged) {
      error(damaged.what());
    } catch (const py::builtin_exception& python_error) {
      python_error.set_error();
    } catch (const std::filesystem::filesystem_error& failure) {
      set_os_error(failure.code().value(), failure.what());
    } catch (const std::invalid_argument& bad) {
      PyErr_SetString(PyExc_ValueError, bad.what());
    } catch (const std::runtime_error& misuse) {
      PyErr_SetString(PyExc_ValueError, misuse.what());
    }
  });
}

}  // namespace tarnio_python

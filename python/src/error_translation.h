#pragma once

// The library's errors as Python exceptions, each with the library's message:
//   TarnError from a failure of the system    OSError (with its errno where the text names one)
//   TarnError otherwise, DamagedFile          tarnio.Error (a damaged or foreign file)
//   std::invalid_argument, std::runtime_error ValueError (a bad argument, or a call in the
//                                             wrong state)
//   std::filesystem::filesystem_error         OSError

#include <pybind11/pybind11.h>

#include <stdexcept>

namespace tarnio_python {

// Thrown by the bindings when the library refuses a file's content with a plain runtime error
// (a missing header, a broken stack chain), so that Python sees a damaged file.
class DamagedFile : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Adds tarnio.Error to `module` and installs the translation.
void register_error_translation(pybind11::module_& module);

}  // namespace tarnio_python

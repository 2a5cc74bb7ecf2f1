#pragma once

// The errors of the OME model: Invalid_Argument when a caller asks for something the document
// does not hold, Invalid_Data when the stored metadata is inconsistent.

#include <stdexcept>

#include "tarnio/export.h"

namespace OME {

class TARNIO_EXPORT Invalid_Argument : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

class TARNIO_EXPORT Invalid_Data : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

}  // namespace OME

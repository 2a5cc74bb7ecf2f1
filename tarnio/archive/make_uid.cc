#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "tarnio/archive/archive.h"

namespace Kalix {

std::string make_uid() {
  // The generator draws from the system's random source and sets the version 4 and variant
  // bits; its text form is lower-case 8-4-4-4-12.
  boost::uuids::random_generator generator;
  return boost::uuids::to_string(generator());
}

}  // namespace Kalix

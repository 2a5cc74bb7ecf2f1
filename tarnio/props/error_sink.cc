#include "tarnio/props/error_sink.h"

namespace Tarn::props {

namespace {
// Only its address is used.
std::string ignored;
}  // namespace

std::string* const ignore_errors = &ignored;

}  // namespace Tarn::props

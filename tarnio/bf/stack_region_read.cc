// StackImp::read_region: the region reads of a file stack (see internal/region_reader.h).

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "tarnio/bf/internal/region_reader.h"
#include "tarnio/bf/stack_imp.h"

namespace Tarn::bf {

void StackImp::read_region(const arrays::Region& region, void* buffer, DataType buffer_type,
                           void* imag) {
  // A read of no samples makes the checks every read makes: the file open, the stack committed
  // and holding data, the buffer type one the converters reach.
  read(0, 0, buffer, buffer_type, imag);
  const std::vector<std::uint64_t>& sizes = shape();
  region.check_fits(sizes);
  const std::uint64_t count = region.number_of_elements();
  if (count == 0) return;
  if (buffer == nullptr) throw std::invalid_argument("Null buffer passed to read().");
  std::uint64_t last = 0;
  std::uint64_t stride = 1;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    last += (region.start()[i] + (region.size()[i] - 1) * region.step()[i]) * stride;
    stride *= sizes[i];
  }
  if (last >= samples_written_) {
    throw std::invalid_argument("Requested samples have not been written yet.");
  }

  const internal::RegionTarget target{type(), buffer_type == Tarn::dt::none ? type() : buffer_type,
                                      static_cast<std::byte*>(buffer),
                                      static_cast<std::byte*>(imag)};
  const std::uint64_t element_size = tarn_dt_get_size(type());
  const std::uint64_t bytes = count * element_size;
  internal::read_region(*segment_, sizes, region, target, [&](std::uint64_t elements) {
    if (progress_ && !progress_(elements * element_size, bytes)) {
      throw std::runtime_error("Cancelled by user.");
    }
  });
}

}  // namespace Tarn::bf

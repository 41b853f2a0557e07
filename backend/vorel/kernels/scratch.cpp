#include "kernels/scratch.h"

#include <cstdint>
#include <vector>

#include "common/storelimits.h"

namespace vorel::internal {

double* ScratchBuffer(std::size_t count) {
  constexpr std::size_t kAlign = 64 / sizeof(double);
  thread_local std::vector<double> buffer;
  CheckStoreSize(count, buffer.max_size() - kAlign);
  if (buffer.size() < count + kAlign) {
    // The old contents are not needed: drop them before growing.
    std::vector<double>().swap(buffer);
    buffer.resize(count + kAlign);
  }
  const auto address = reinterpret_cast<std::uintptr_t>(buffer.data());
  const std::size_t skip = (64 - address % 64) % 64 / sizeof(double);
  return buffer.data() + skip;
}

}  // namespace vorel::internal

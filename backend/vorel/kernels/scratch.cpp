#include "kernels/scratch.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

#include "common/storelimits.h"

namespace vorel::internal {

double* ScratchBuffer(std::size_t count) {
  constexpr std::size_t kAlign = 64;
  // Raw bytes: the kernels keep doubles, masks and row numbers in them.
  thread_local std::unique_ptr<std::byte[]> storage;
  thread_local std::size_t capacity = 0;
  CheckStoreSize(count, (std::numeric_limits<std::size_t>::max() - kAlign) / sizeof(double));
  const std::size_t bytes = count * sizeof(double) + kAlign;
  if (capacity < bytes) {
    // The old contents are not needed: drop them before growing.
    storage.reset();
    capacity = 0;
    storage.reset(new std::byte[bytes]);
    capacity = bytes;
  }
  const auto address = reinterpret_cast<std::uintptr_t>(storage.get());
  const std::size_t skip = (kAlign - address % kAlign) % kAlign;
  return reinterpret_cast<double*>(storage.get() + skip);
}

}  // namespace vorel::internal

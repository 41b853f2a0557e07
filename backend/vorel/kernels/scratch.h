// Per-thread scratch of the blocked kernels. Internal.
#pragma once

#include <cstddef>

namespace vorel::internal {

// count doubles of this thread's scratch, aligned to 64 bytes. The contents
// are undefined; the pointer stays valid until the next call on the thread.
// The storage is raw bytes: a kernel may keep masks and row numbers in parts
// of it, each part only ever read as what it was written as.
// The buffer grows to the largest request the thread has made and is freed
// when the thread ends. A count beyond what a vector can hold throws
// std::length_error, an exhausted heap std::bad_alloc.
double* ScratchBuffer(std::size_t count);

}  // namespace vorel::internal

// Scratch for the merged means of a listwise block merge.
//
// Internal to the library. The merge of a block needs the old means of every
// column until its last cell is done, so the new ones gather in scratch. A
// block of one column keeps its one value inside the object: merging it takes
// no heap memory.
#pragma once

#include <cstddef>
#include <vector>

namespace vorel::internal {

class MeansScratch {
 public:
  explicit MeansScratch(std::size_t n) {
    if (n > 1) _heap.resize(n);
  }
  double* data() { return _heap.empty() ? &_single : _heap.data(); }

 private:
  double _single = 0.0;
  std::vector<double> _heap;
};

}  // namespace vorel::internal

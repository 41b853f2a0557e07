// The fields that lead the state of both discriminant records: the filled
// flag, the shape, the row count and the weight sum. The shape of an empty
// record is whatever it was built with; a filled one has at least one
// variable.
//
// Internal to the library.
#pragma once

#include <climits>

#include "common/statecodec.h"

namespace vorel::internal {

// Returns whether the record is filled. Record is const when saving.
template <class Archive, class Record>
bool DiscriminantStateHead(Archive& a, Record& r) {
  bool filled = !r.Empty();
  a.Flag(StateFlag::Filled, filled);
  a.Dim("groups", r._nGroup, filled ? 0 : INT_MIN, INT_MAX);
  a.Dim("variables", r._nVar, filled ? 1 : INT_MIN, INT_MAX);
  a.RowCount(r._nRows, filled);
  a.Real(r._weightSum);
  return filled;
}

}  // namespace vorel::internal

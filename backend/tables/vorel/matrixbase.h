// MatrixBase: the one interface of every object that accumulates statistics
// from batches and merges with another object of its own class.
//
// A worker adds each of its batches with operator+=(DataBatch&) and at the end
// adds its object to the shared one with operator+=(MatrixBase&); the argument
// must be of the very same derived class. Only the per-group discriminant table
// uses grouped batches; every other class ignores them.
//
// Column blocks. The S and NS classes gather statistics of a block of batch
// columns given by three bounds, read through Col0(), Col1() and Col2():
//   symmetric (S):      [Col0(), Col2()) with itself; Col1() == Col0();
//   non-symmetric (NS): every column of [Col0(), Col2()) on its own, and the
//                       pairs of [Col0(), Col1()) with [Col1(), Col2()).
// Col2() is exclusive. An S block over [a, b), an S block over [b, c) and the
// NS block (a, b, c) together hold every pair of [a, c). Accessors take batch
// column numbers; a batch may hold more columns than the block. Shared shape
// of their operator+=:
//   += DataBatch:  a batch without rows changes nothing, not even the bounds;
//   += MatrixBase: an object without rows changes nothing; into an object
//                  that is still empty, a deep copy of the other, bounds
//                  included; otherwise the class's update formula. The
//                  other object is only read.
#pragma once

namespace vorel {

class DataBatch;
class DataBatchByGroup;

class MatrixBase {
 public:
  MatrixBase() = default;
  MatrixBase(const MatrixBase&) = default;
  MatrixBase& operator=(const MatrixBase&) { return *this; }
  virtual ~MatrixBase() {}

  // Rows accumulated so far.
  virtual int NRows() const = 0;
  // Merges other, an object of this same class, into this one; other is only read.
  virtual MatrixBase& operator+=(MatrixBase& other) = 0;
  // Adds a grouped batch; ignored unless a class says otherwise.
  virtual MatrixBase& operator+=(DataBatchByGroup& data) {
    static_cast<void>(data);
    return *this;
  }
  // Adds a batch.
  virtual MatrixBase& operator+=(DataBatch& data) = 0;
};

}  // namespace vorel

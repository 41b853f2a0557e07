// MatrixBase: the one interface of every object that accumulates statistics
// from batches and merges with another object of its own class.
//
// A worker adds each of its batches with operator+=(DataBatch&) and at the end
// adds its object to the shared one with operator+=(MatrixBase&); the argument
// must be of the very same derived class. Only the per-group discriminant table
// uses grouped batches; every other class ignores them.
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

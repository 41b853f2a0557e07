// The operations that every exported matrix performs the same way on its
// record: the handle's copy and move, the adding of a batch, and the merge of
// another object of the same class through MatrixBase&.
//
// A record taking part provides
//   bool Empty() const                     no rows taken in yet;
//   void Accumulate(Batch&)                an empty record takes a batch in;
//   void Merge(const Record&)              a filled record takes another in;
//   Record EmptyOfSameShape() const        a fresh record for the next batch;
// and copies deeply with its own copy constructor and operator=.
//
// A source file that defines a matrix class instantiates its handle with
// `template class vorel::internal::RecordHandle<Record>;`.
//
// Internal to the library.
#pragma once

#include <vorel/matrixbase.h>
#include <vorel/recordhandle.h>
#include <vorelhost/assertion.h>

#include <memory>
#include <utility>

namespace vorel::internal {

template <class Record>
template <class... Args>
RecordHandle<Record>::RecordHandle(std::in_place_t, Args&&... args)
    : _record(std::make_unique<Record>(std::forward<Args>(args)...)) {}

template <class Record>
RecordHandle<Record>::RecordHandle(const RecordHandle& other)
    : _record(other._record ? std::make_unique<Record>(*other._record) : nullptr) {}

template <class Record>
RecordHandle<Record>& RecordHandle<Record>::operator=(const RecordHandle& other) {
  if (this != &other) {
    RecordHandle copy(other);  // every allocation before this handle changes
    _record.swap(copy._record);
  }
  return *this;
}

template <class Record>
RecordHandle<Record>::RecordHandle(RecordHandle&& other) noexcept = default;

template <class Record>
RecordHandle<Record>& RecordHandle<Record>::operator=(RecordHandle&& other) noexcept = default;

template <class Record>
RecordHandle<Record>::~RecordHandle() = default;

// An empty record takes the batch in itself; a filled one takes it in
// through a fresh record of the same shape and the same merge that joins two
// threads' results. A batch without rows changes nothing.
template <class Record, class Batch>
void AccumulateOrMerge(Record& record, Batch& data) {
  if (data.NRows() == 0) return;
  if (record.Empty()) {
    record.Accumulate(data);
    return;
  }
  Record batch = record.EmptyOfSameShape();
  batch.Accumulate(data);
  record.Merge(batch);
}

// An empty record becomes a deep copy of d, its shape included; a filled one
// merges d.
template <class Record>
void CopyOrMerge(Record& record, const Record& d) {
  if (record.Empty())
    record = d;
  else
    record.Merge(d);
}

// operator+=(MatrixBase&) of the matrix class Handle, whose record the member
// `my` holds: other must be an object of this very class. An object without
// rows changes nothing and is not looked at further. fold takes in other's
// record, by default with CopyOrMerge. other is only read.
template <class Handle, class Record, class Fold>
MatrixBase& AddSameClass(Handle& self, MatrixBase& other, RecordHandle<Record> Handle::*my,
                         Fold&& fold) {
  if (other.NRows() == 0) return self;
  const auto* d = dynamic_cast<const Handle*>(&other);
  VOREL_ASSERT(d != nullptr);
  fold(*(d->*my));
  return self;
}

template <class Handle, class Record>
MatrixBase& AddSameClass(Handle& self, MatrixBase& other, RecordHandle<Record> Handle::*my) {
  return AddSameClass(self, other, my,
                      [&self, my](const Record& d) { CopyOrMerge(*(self.*my), d); });
}

}  // namespace vorel::internal

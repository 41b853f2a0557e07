// RecordHandle: the owning pointer `_my` from an exported matrix to its
// private record.
//
// A handle owns its record. Copying a handle copies the record deeply (the
// two share nothing afterwards; a failed copy leaves the target as it was),
// moving hands the record over and leaves the source without one: a
// moved-from matrix may only be destroyed or assigned to. So the matrix
// classes need no copy, move or destructor of their own.
//
// The record is known only inside the library: the operations that need it
// are defined there, one instantiation per record, and the record's class is
// only declared here.
//
// Internal to the library: it appears in public headers only as the type of
// the private member `_my`.
#pragma once

#include <memory>
#include <utility>

namespace vorel::internal {

template <class Record>
class RecordHandle {
 public:
  template <class... Args>
  explicit RecordHandle(std::in_place_t, Args&&... args);
  RecordHandle(const RecordHandle& other);
  RecordHandle& operator=(const RecordHandle& other);
  RecordHandle(RecordHandle&& other) noexcept;
  RecordHandle& operator=(RecordHandle&& other) noexcept;
  ~RecordHandle();

  Record* operator->() const { return _record.get(); }
  Record& operator*() const { return *_record; }

 private:
  std::unique_ptr<Record> _record;
};

}  // namespace vorel::internal

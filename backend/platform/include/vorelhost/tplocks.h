// Thread library: a mutex and the scoped guard that holds it.
//
// tpMutex is a plain exclusive mutex with no set-up beyond its constructor.
// tpGuard holds a tpMutex from its constructor to its destructor, so a guard
// scope ends on every path out of it, an exception's included.
#pragma once

#include <mutex>

namespace vorelhost {

// How a guard holds its mutex. The library takes exclusive locks only, so
// exclusive is the one kind there is; the value 1 is the one hosts pass.
enum LockType : int { tpLockExclusive = 1 };

class tpMutex {
 public:
  tpMutex() = default;
  tpMutex(const tpMutex&) = delete;
  tpMutex& operator=(const tpMutex&) = delete;

 private:
  friend class tpGuard;
  std::mutex _mutex;
};

class tpGuard {
 public:
  // Blocks until `mutex` is held by the calling thread.
  tpGuard(tpMutex& mutex, LockType type) : _lock(mutex._mutex) { static_cast<void>(type); }
  tpGuard(const tpGuard&) = delete;
  tpGuard& operator=(const tpGuard&) = delete;

 private:
  std::lock_guard<std::mutex> _lock;
};

}  // namespace vorelhost

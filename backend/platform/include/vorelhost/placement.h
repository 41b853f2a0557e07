// Thread placement: a hint to the scheduler about the CPU a thread should run
// on.
//
// On Linux the hint is an affinity request: SetThreadIdealProcessor binds the
// thread to the one CPU asked for, if that CPU is among those the process may
// use (its affinity mask, which reflects cpusets and taskset), and refuses
// otherwise, leaving the thread where it was. A refusal is no error; callers
// go on unplaced. The binding lasts as long as the thread or until the next
// request for it; the library asks only for the threads of its own pools,
// which end with their run.
//
// Tests and hosts may watch the requests: an observer installed with
// SetPlacementObserver is told of every request, refused ones included,
// before it is carried out, on the thread that makes it.
#pragma once

#include <pthread.h>

#include <functional>
#include <utility>

namespace vorelhost {

struct ThreadHandle {
  pthread_t native;
};

inline bool operator==(ThreadHandle a, ThreadHandle b) {
  return pthread_equal(a.native, b.native) != 0;
}

// The calling thread.
ThreadHandle GetCurrentThread() noexcept;

// Asks for `thread` to run on CPU `cpu`. True if the request was carried out,
// false if it was refused (no such CPU for this process, or the system said
// no). An exception of the observer passes through.
bool SetThreadIdealProcessor(ThreadHandle thread, unsigned cpu);

using PlacementObserver = std::function<void(ThreadHandle thread, unsigned cpu)>;

// Installs `observer` (empty: none) and returns the one before. The observer
// may be called from several threads at once.
PlacementObserver SetPlacementObserver(PlacementObserver observer);

class ScopedPlacementObserver {
 public:
  explicit ScopedPlacementObserver(PlacementObserver observer)
      : _previous(SetPlacementObserver(std::move(observer))) {}
  ~ScopedPlacementObserver() { SetPlacementObserver(std::move(_previous)); }
  ScopedPlacementObserver(const ScopedPlacementObserver&) = delete;
  ScopedPlacementObserver& operator=(const ScopedPlacementObserver&) = delete;

 private:
  PlacementObserver _previous;
};

}  // namespace vorelhost

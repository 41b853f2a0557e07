// Thread placement: a hint to the scheduler about the CPU a thread should run
// on.
//
// Linux has no such hint, so SetThreadIdealProcessor moves the thread to the
// CPU asked for and then hands it back the set of CPUs it had: the thread
// starts there, and the scheduler stays free to move it when that CPU is
// busy. Binding it for good would let two runs side by side, in one process
// or in two, pile onto the same CPU while another one idles. A CPU outside the
// thread's own set (its affinity mask, which reflects cpusets, taskset and any
// narrowing by the host) is refused, and the thread stays where it was. A
// refusal is no error; callers go on unplaced.
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

// Asks for `thread` to run on CPU `cpu`. True if the thread was moved there,
// false if the request was refused (a CPU outside the thread's set, or the
// system said no). The thread's set is the same afterwards either way. An
// exception of the observer passes through.
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

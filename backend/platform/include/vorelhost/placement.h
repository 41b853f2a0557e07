// Thread placement: a hint to the scheduler about the CPU a thread should run
// on.
//
// Linux has no such hint, so SetThreadIdealProcessor moves the thread to a
// CPU and then hands it back the set of CPUs it had: the thread starts there,
// and the scheduler stays free to move it when that CPU is busy. Binding it for
// good would let two runs side by side, in one process or in two, pile onto
// the same CPU while another one idles.
//
// The CPU asked for is read as a place on the machine, cpu of its N configured
// CPUs, and the thread goes to the CPU at the same place in the part of its
// own set (its affinity mask, which reflects cpusets, taskset and the binding
// of a process launcher) that the process's PlacementShare gives it: with the
// whole machine allowed and one share, the CPU asked for itself. So placement
// never leaves the allowed set, and requests spread over it however narrow it
// is. Processes that share one set (ranks of a parallel job on one machine,
// unbound) each take a share of their own, so that their threads do not start
// on the same CPUs. A CPU number of N or more is refused, as is every request
// while placement is off, and the thread stays where it was. A refusal is no
// error; callers go on unplaced.
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

// This process's part of each thread's set: the CPUs of slice `part` of
// `parts` equal slices of the set in CPU order (one CPU, shared, when the set
// has fewer CPUs than parts). `enabled` false turns placement off.
struct PlacementShare {
  bool enabled = true;
  unsigned part = 0;
  unsigned parts = 1;
};

// Installs `share` for every request from now on and returns the one before.
// Requires part < parts; a share that breaks it is taken as the whole set.
PlacementShare SetPlacementShare(PlacementShare share);

// The number of CPUs in the calling thread's part of its set under the
// installed share (at least 1).
unsigned CpusInShare();

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

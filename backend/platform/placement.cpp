#include <vorelhost/placement.h>

#include <sched.h>
#include <unistd.h>

#include <memory>
#include <mutex>

namespace vorelhost {
namespace {

struct ObserverStore {
  std::mutex mutex;
  std::shared_ptr<const PlacementObserver> observer = std::make_shared<const PlacementObserver>();
};

ObserverStore& Store() {
  static ObserverStore store;
  return store;
}

std::shared_ptr<const PlacementObserver> CurrentObserver() {
  ObserverStore& store = Store();
  std::lock_guard<std::mutex> lock(store.mutex);
  return store.observer;
}

// The CPUs the process may use: the mask of its main thread. A pool thread's
// own mask is no guide, as an earlier request may have narrowed it to one CPU.
bool ProcessMayUse(unsigned cpu) {
  if (cpu >= CPU_SETSIZE) return false;
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(getpid(), sizeof allowed, &allowed) != 0) return false;
  return CPU_ISSET(cpu, &allowed);
}

}  // namespace

ThreadHandle GetCurrentThread() noexcept { return ThreadHandle{pthread_self()}; }

bool SetThreadIdealProcessor(ThreadHandle thread, unsigned cpu) {
  const std::shared_ptr<const PlacementObserver> observer = CurrentObserver();
  if (*observer) (*observer)(thread, cpu);
  if (!ProcessMayUse(cpu)) return false;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  return pthread_setaffinity_np(thread.native, sizeof one, &one) == 0;
}

PlacementObserver SetPlacementObserver(PlacementObserver observer) {
  auto replacement = std::make_shared<const PlacementObserver>(std::move(observer));
  ObserverStore& store = Store();
  std::shared_ptr<const PlacementObserver> previous;
  {
    std::lock_guard<std::mutex> lock(store.mutex);
    previous.swap(store.observer);
    store.observer = std::move(replacement);
  }
  return *previous;
}

}  // namespace vorelhost

#include <sched.h>
#include <vorelhost/placement.h>

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

}  // namespace

ThreadHandle GetCurrentThread() noexcept { return ThreadHandle{pthread_self()}; }

bool SetThreadIdealProcessor(ThreadHandle thread, unsigned cpu) {
  const std::shared_ptr<const PlacementObserver> observer = CurrentObserver();
  if (*observer) (*observer)(thread, cpu);
  cpu_set_t own;
  CPU_ZERO(&own);
  if (cpu >= CPU_SETSIZE || pthread_getaffinity_np(thread.native, sizeof own, &own) != 0
      || !CPU_ISSET(cpu, &own))
    return false;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  // Narrowing the set moves the thread at once; widening it again leaves it
  // where it now is until the scheduler has a reason to move it.
  if (pthread_setaffinity_np(thread.native, sizeof one, &one) != 0) return false;
  pthread_setaffinity_np(thread.native, sizeof own, &own);
  return true;
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

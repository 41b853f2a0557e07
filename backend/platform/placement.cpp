#include <sched.h>
#include <unistd.h>
#include <vorelhost/placement.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace vorelhost {
namespace {

// The observer and the share of every placement request.
struct ObserverStore {
  std::mutex mutex;
  std::shared_ptr<const PlacementObserver> observer = std::make_shared<const PlacementObserver>();
  PlacementShare share;
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

PlacementShare CurrentShare() {
  ObserverStore& store = Store();
  std::lock_guard<std::mutex> lock(store.mutex);
  return store.share;
}

// The CPUs of the share's slice of `set`, in CPU order.
std::vector<unsigned> SliceOf(const cpu_set_t& set, PlacementShare share) {
  std::vector<unsigned> cpus;
  for (unsigned cpu = 0; cpu < CPU_SETSIZE; ++cpu)
    if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
  const std::size_t n = cpus.size();
  std::size_t first = n * share.part / share.parts;
  std::size_t end = n * (share.part + 1) / share.parts;
  if (end == first && n > 0) {  // fewer CPUs than parts: one of them, shared
    first = std::min(first, n - 1);
    end = first + 1;
  }
  return {cpus.begin() + static_cast<std::ptrdiff_t>(first),
          cpus.begin() + static_cast<std::ptrdiff_t>(end)};
}

// The CPUs the machine is said to have: the places a request may name.
unsigned MachineCpus() {
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  return configured > 0 ? static_cast<unsigned>(std::min<long>(configured, CPU_SETSIZE)) : 1u;
}

}  // namespace

ThreadHandle GetCurrentThread() noexcept { return ThreadHandle{pthread_self()}; }

bool SetThreadIdealProcessor(ThreadHandle thread, unsigned cpu) {
  const std::shared_ptr<const PlacementObserver> observer = CurrentObserver();
  if (*observer) (*observer)(thread, cpu);
  const PlacementShare share = CurrentShare();
  const unsigned machine = MachineCpus();
  cpu_set_t own;
  CPU_ZERO(&own);
  if (!share.enabled || cpu >= machine
      || pthread_getaffinity_np(thread.native, sizeof own, &own) != 0)
    return false;
  const std::vector<unsigned> slice = SliceOf(own, share);
  if (slice.empty()) return false;
  // The same place on the slice as cpu on the machine.
  const std::size_t place = std::size_t{cpu} * slice.size() / machine;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(slice[place], &one);
  // Narrowing the set moves the thread at once; widening it again leaves it
  // where it now is until the scheduler has a reason to move it.
  if (pthread_setaffinity_np(thread.native, sizeof one, &one) != 0) return false;
  pthread_setaffinity_np(thread.native, sizeof own, &own);
  return true;
}

PlacementShare SetPlacementShare(PlacementShare share) {
  if (share.parts == 0 || share.part >= share.parts) share = PlacementShare{share.enabled, 0, 1};
  ObserverStore& store = Store();
  std::lock_guard<std::mutex> lock(store.mutex);
  return std::exchange(store.share, share);
}

unsigned CpusInShare() {
  cpu_set_t own;
  CPU_ZERO(&own);
  if (pthread_getaffinity_np(pthread_self(), sizeof own, &own) != 0) return 1;
  return std::max<unsigned>(1, static_cast<unsigned>(SliceOf(own, CurrentShare()).size()));
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

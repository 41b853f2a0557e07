// Host runtime: what the host system tells the library about the machine, and
// the host's handling of an error that stopped a run.
//
// Every answer comes from the real machine unless the host (or a test) puts
// its own answer in place with SetHostHooks. Defaults on Linux:
//  - HostCacheKilobytes: the level-2 cache of CPU 0 from sysfs
//    (/sys/devices/system/cpu/cpu0/cache), else sysconf, else 256. Level 2 is
//    the largest cache a core has to itself on common machines, so a worker
//    that sizes its batch to it keeps the batch in cache while it works.
//  - HostThreadCount: std::thread::hardware_concurrency(), at least 1.
//  - hostPhysicalCpuCount, hostCoresPerCpuCount, hostLogicalPerCoreCount:
//    the sockets, the cores of one socket and the threads of one core, read
//    once from the topology of the online CPUs in sysfs. Without sysfs: one
//    socket of hardware_concurrency() single-threaded cores.
//  - HostResumeCaller: throws QuorGoToCaller, so that without a host the stop
//    of a run reaches the caller of Driver as the exception that caused it.
//
// The counts and the budget are never negative: a hook's negative answer is
// reported as 0.
#pragma once

#include <exception>
#include <functional>
#include <utility>

namespace vorelhost {

// The host's error, raised by host code that a worker calls. It unwinds to
// the library, which stops the run and hands control back to the host through
// HostResumeCaller on the caller's thread.
class QuorGoToCaller : public std::exception {
 public:
  const char* what() const noexcept override { return "host error: return to caller"; }
};

// The memory budget for one worker, in kilobytes.
int HostCacheKilobytes();
// The number of threads a run uses when its caller leaves the choice open.
int HostThreadCount();
// The host's handling of a stopped run; called on the caller's thread. It may
// return or throw.
void HostResumeCaller();
// The three factors of the number of logical CPUs.
int hostPhysicalCpuCount();
int hostCoresPerCpuCount();
int hostLogicalPerCoreCount();

// A host's own answers. An empty member keeps the machine's default.
struct HostHooks {
  std::function<int()> cacheKilobytes;
  std::function<int()> threadCount;
  std::function<void()> resumeCaller;
  std::function<int()> physicalCpuCount;
  std::function<int()> coresPerCpuCount;
  std::function<int()> logicalPerCoreCount;
};

// Installs `hooks` and returns the ones before. A run already going on may see
// either set; install hooks while no run is going on. The hooks themselves may
// be called from several threads at once.
HostHooks SetHostHooks(HostHooks hooks);

// Installs hooks for the length of a scope and puts the previous ones back.
class ScopedHostHooks {
 public:
  explicit ScopedHostHooks(HostHooks hooks) : _previous(SetHostHooks(std::move(hooks))) {}
  ~ScopedHostHooks() { SetHostHooks(std::move(_previous)); }
  ScopedHostHooks(const ScopedHostHooks&) = delete;
  ScopedHostHooks& operator=(const ScopedHostHooks&) = delete;

 private:
  HostHooks _previous;
};

}  // namespace vorelhost

#include <unistd.h>
#include <vorelhost/hostruntime.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vorelhost {
namespace {

// ---- hooks ---------------------------------------------------------------

// The installed hooks are replaced as a whole; a caller takes a reference to
// the current set under the lock and calls outside it, so hooks may run on
// several threads at once and may even install other hooks.
// Made on first use, so hooks may be installed from any static initialiser.
struct HookStore {
  std::mutex mutex;
  std::shared_ptr<const HostHooks> hooks = std::make_shared<const HostHooks>();
};

HookStore& Store() {
  static HookStore store;
  return store;
}

std::shared_ptr<const HostHooks> CurrentHooks() {
  HookStore& store = Store();
  std::lock_guard<std::mutex> lock(store.mutex);
  return store.hooks;
}

int NotBelowZero(int value) { return value < 0 ? 0 : value; }

// Calls the hook if one is installed, else the machine's default.
template <typename Default>
int Answer(std::function<int()> HostHooks::*member, Default machineDefault) {
  const std::shared_ptr<const HostHooks> hooks = CurrentHooks();
  const std::function<int()>& hook = (*hooks).*member;
  return NotBelowZero(hook ? hook() : machineDefault());
}

// ---- the machine ---------------------------------------------------------

const char kCpuDirectory[] = "/sys/devices/system/cpu/";

bool ReadLine(const std::string& path, std::string& line) {
  std::ifstream file(path);
  return static_cast<bool>(std::getline(file, line));
}

bool ReadInt(const std::string& path, long& value) {
  std::string line;
  if (!ReadLine(path, line)) return false;
  try {
    value = std::stol(line);
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

// A sysfs size such as "32K", "1024K" or "32M", in kilobytes; 0 if unreadable.
long SizeInKilobytes(const std::string& text) {
  std::size_t digits = 0;
  long value = 0;
  try {
    value = std::stol(text, &digits);
  } catch (const std::exception&) {
    return 0;
  }
  const char unit = digits < text.size() ? text[digits] : 'B';
  if (unit == 'K') return value;
  if (unit == 'M') return value * 1024;
  if (unit == 'G') return value * 1024 * 1024;
  return value / 1024;
}

// A CPU list such as "0-3,6,8-9".
std::vector<int> ParseCpuList(const std::string& text) {
  std::vector<int> cpus;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t used = 0;
    int first = 0;
    try {
      first = std::stoi(text.substr(pos), &used);
    } catch (const std::exception&) {
      break;
    }
    pos += used;
    int last = first;
    if (pos < text.size() && text[pos] == '-') {
      ++pos;
      try {
        last = std::stoi(text.substr(pos), &used);
      } catch (const std::exception&) {
        break;
      }
      pos += used;
    }
    for (int cpu = first; cpu <= last; ++cpu)
      cpus.push_back(cpu);
    if (pos < text.size() && text[pos] == ',')
      ++pos;
    else
      break;
  }
  return cpus;
}

int HardwareThreads() {
  const unsigned count = std::thread::hardware_concurrency();
  return count == 0 ? 1 : static_cast<int>(std::min(count, 1u << 30));
}

int MachineCacheKilobytes() {
  const std::string cacheDirectory = std::string(kCpuDirectory) + "cpu0/cache/";
  for (int index = 0; index < 16; ++index) {
    const std::string dir = cacheDirectory + "index" + std::to_string(index) + "/";
    long level = 0;
    std::string type, size;
    if (!ReadInt(dir + "level", level)) break;
    if (level != 2 || !ReadLine(dir + "type", type) || type == "Instruction") continue;
    if (!ReadLine(dir + "size", size)) continue;
    const long kilobytes = SizeInKilobytes(size);
    if (kilobytes > 0) return static_cast<int>(std::min(kilobytes, 1L << 30));
  }
#ifdef _SC_LEVEL2_CACHE_SIZE
  const long bytes = sysconf(_SC_LEVEL2_CACHE_SIZE);
  if (bytes > 0) return static_cast<int>(std::min(bytes / 1024, 1L << 30));
#endif
  return 256;
}

struct Topology {
  int sockets;
  int coresPerSocket;
  int threadsPerCore;
};

Topology ReadTopology() {
  const Topology fallback{1, HardwareThreads(), 1};
  std::string online;
  if (!ReadLine(std::string(kCpuDirectory) + "online", online)) return fallback;
  const std::vector<int> cpus = ParseCpuList(online);
  std::set<long> sockets;
  std::set<std::pair<long, long>> cores;
  for (int cpu : cpus) {
    const std::string dir = std::string(kCpuDirectory) + "cpu" + std::to_string(cpu) + "/topology/";
    long socket = 0, core = 0;
    if (!ReadInt(dir + "physical_package_id", socket) || !ReadInt(dir + "core_id", core))
      return fallback;
    sockets.insert(socket);
    cores.insert({socket, core});
  }
  if (cores.empty()) return fallback;
  const auto ceilDiv = [](std::size_t a, std::size_t b) {
    return static_cast<int>((a + b - 1) / b);
  };
  return Topology{static_cast<int>(sockets.size()), ceilDiv(cores.size(), sockets.size()),
                  ceilDiv(cpus.size(), cores.size())};
}

// Read once: the topology of a running machine does not change under a run,
// and every task start asks for it.
const Topology& MachineTopology() {
  static const Topology topology = ReadTopology();
  return topology;
}

}  // namespace

HostHooks SetHostHooks(HostHooks hooks) {
  auto replacement = std::make_shared<const HostHooks>(std::move(hooks));
  HookStore& store = Store();
  std::shared_ptr<const HostHooks> previous;
  {
    std::lock_guard<std::mutex> lock(store.mutex);
    previous = std::exchange(store.hooks, std::move(replacement));
  }
  return *previous;
}

int HostCacheKilobytes() {
  return Answer(&HostHooks::cacheKilobytes, [] {
    static const int kilobytes = MachineCacheKilobytes();
    return kilobytes;
  });
}

int HostThreadCount() { return Answer(&HostHooks::threadCount, HardwareThreads); }

void HostResumeCaller() {
  const std::shared_ptr<const HostHooks> hooks = CurrentHooks();
  if (hooks->resumeCaller) {
    hooks->resumeCaller();
    return;
  }
  throw QuorGoToCaller();
}

int hostPhysicalCpuCount() {
  return Answer(&HostHooks::physicalCpuCount, [] { return MachineTopology().sockets; });
}

int hostCoresPerCpuCount() {
  return Answer(&HostHooks::coresPerCpuCount, [] { return MachineTopology().coresPerSocket; });
}

int hostLogicalPerCoreCount() {
  return Answer(&HostHooks::logicalPerCoreCount, [] { return MachineTopology().threadsPerCore; });
}

}  // namespace vorelhost

#include <vorelhost/tpcompletetask.h>
#include <vorelhost/tpthreadpool.h>

#include <climits>
#include <exception>
#include <system_error>
#include <utility>

namespace vorelhost {
namespace {

// Owns a pthread attribute object for the length of one startAll.
class ThreadAttributes {
 public:
  explicit ThreadAttributes(int stackKilobytes) {
    const int error = pthread_attr_init(&_attr);
    if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_attr_init");
    if (stackKilobytes > 0) SetStackSize(static_cast<std::size_t>(stackKilobytes) * 1024u);
  }
  ~ThreadAttributes() { pthread_attr_destroy(&_attr); }
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;

  const pthread_attr_t* get() const { return &_attr; }

 private:
  // A size the system refuses (below its minimum) leaves the default in place.
  void SetStackSize(std::size_t bytes) { pthread_attr_setstacksize(&_attr, bytes); }

  pthread_attr_t _attr;
};

}  // namespace

tpThreadPoolBase::tpThreadPoolBase(int threadCount, int stackKilobytes)
    : _threadCount(threadCount < 0 ? 0 : threadCount),
      _stackKilobytes(stackKilobytes < 0 ? 0 : stackKilobytes) {}

tpThreadPoolBase::~tpThreadPoolBase() { StopAndJoin(); }

bool tpThreadPoolBase::init() {
  if (_initialised) return false;
  _threads.reserve(static_cast<std::size_t>(_threadCount));
  _initialised = true;
  return true;
}

bool tpThreadPoolBase::startAll() {
  if (!_initialised || _started) return false;
  _started = true;
  ThreadAttributes attributes(_stackKilobytes);
  int lastError = 0;
  for (int i = 0; i < _threadCount; ++i) {
    pthread_t thread;
    lastError = pthread_create(&thread, attributes.get(), &ThreadMain, this);
    if (lastError != 0) break;
    _threads.push_back(thread);  // within the reserved room: cannot throw
  }
  if (_threads.empty() && _threadCount > 0)
    throw std::system_error(lastError, std::generic_category(), "tpThreadPool: no thread");
  return true;
}

bool tpThreadPoolBase::invoke(tpTaskObject* task, void* arg, ThreadScope scope) {
  static_cast<void>(scope);
  std::unique_ptr<tpTaskObject> owned(task);
  if (!owned) return false;
  // Before startAll a task waits in the queue; after it, a pool without
  // threads could never run it.
  if (_threadCount == 0 || (_started && _threads.empty())) return false;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _queue.push_back(QueuedTask{std::move(owned), arg});
  }
  _wake.notify_one();
  return true;
}

void* tpThreadPoolBase::ThreadMain(void* pool) {
  static_cast<tpThreadPoolBase*>(pool)->ServeTasks();
  return nullptr;
}

void tpThreadPoolBase::ServeTasks() {
  for (;;) {
    QueuedTask next;
    {
      std::unique_lock<std::mutex> lock(_mutex);
      _wake.wait(lock, [this] { return _closing || !_queue.empty(); });
      if (_queue.empty()) return;  // closing, and nothing is left to run
      next = std::move(_queue.front());
      _queue.pop_front();
    }
    RunAndDestroy(std::move(next));
  }
}

void tpThreadPoolBase::RunAndDestroy(QueuedTask queued) {
  tpTaskObject& task = *queued.task;
  try {
    task.Run(queued.arg);
  } catch (...) {
    tpCompleteTask* counter = task.getCompleteTask();
    if (counter == nullptr) std::terminate();
    counter->TaskFailed(std::current_exception());
  }
  // The unique_ptr destroys the task here, on this thread.
}

void tpThreadPoolBase::StopAndJoin() noexcept {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _closing = true;
  }
  _wake.notify_all();
  for (pthread_t thread : _threads)
    pthread_join(thread, nullptr);
  // Tasks queued on a pool that never started are destroyed without running.
  _queue.clear();
}

}  // namespace vorelhost

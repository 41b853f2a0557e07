#include <vorelhost/tpcompletetask.h>

namespace vorelhost {

tpCompleteTask::tpCompleteTask(int count) : _expected(count < 0 ? 0 : count) {}

bool tpCompleteTask::set(int count) {
  if (count < 0) return false;
  std::lock_guard<std::mutex> lock(_mutex);
  _expected = count;
  // A smaller target may already be met by the tasks that have signalled.
  _allDone.notify_all();
  return true;
}

void tpCompleteTask::TaskDone() {
  std::lock_guard<std::mutex> lock(_mutex);
  ++_finished;
  // Notified under the lock: the waiter may destroy the counter as soon as it
  // sees the last signal, so nothing may touch it after the lock is released.
  if (_finished >= _expected) _allDone.notify_all();
}

void tpCompleteTask::TaskFailed(std::exception_ptr failure) noexcept {
  _stopRequested.store(true);
  std::lock_guard<std::mutex> lock(_mutex);
  if (!_firstFailure) _firstFailure = std::move(failure);
  ++_finished;
  if (_finished >= _expected) _allDone.notify_all();
}

bool tpCompleteTask::waitAll() {
  std::unique_lock<std::mutex> lock(_mutex);
  _allDone.wait(lock, [this] { return _finished >= _expected; });
  return !_firstFailure;
}

std::exception_ptr tpCompleteTask::firstFailure() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _firstFailure;
}

}  // namespace vorelhost

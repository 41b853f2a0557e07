#include <vorelhost/assertion.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace vorelhost {
namespace {

void PrintAndAbort(const char* expression, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, expression);
  std::fflush(stderr);
  std::abort();
}

std::atomic<AssertHandler> activeHandler{&PrintAndAbort};

}  // namespace

AssertHandler SetAssertHandler(AssertHandler handler) noexcept {
  return activeHandler.exchange(handler ? handler : &PrintAndAbort);
}

void AssertFailed(const char* expression, const char* file, int line) {
  activeHandler.load()(expression, file, line);
  // A handler that returns has no way to undo the breach.
  std::abort();
}

}  // namespace vorelhost

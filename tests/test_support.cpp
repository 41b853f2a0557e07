#include "test_support.h"

#include <vorelhost/assertion.h>

namespace {

void ThrowAssertion(const char* expression, const char* file, int line) {
  throw vorel::testing::AssertionFailure(expression, file, line);
}

// Installed before main, so every test sees throwing assertions.
const bool installed = (vorelhost::SetAssertHandler(&ThrowAssertion), true);

}  // namespace

// The platform's assertion facility.
//
// Every precondition of the library goes through VOREL_ASSERT. The check is
// compiled into every build, whatever NDEBUG says: a breached precondition is
// a caller's error that must never pass silently into the numbers.
//
// On failure the active handler receives the expression text exactly as
// written in the macro, the source file (relative to the project root) and the
// line. The default handler prints one line to standard error and aborts. A
// host may install its own handler; if that handler returns, the process is
// aborted all the same, so a handler that wants to recover must throw.
#pragma once

namespace vorelhost {

using AssertHandler = void (*)(const char* expression, const char* file, int line);

// Installs `handler` (null restores the default) and returns the one before.
// Meant to be called while no other thread is inside the library.
AssertHandler SetAssertHandler(AssertHandler handler) noexcept;

// Reports a failed assertion and never returns normally.
[[noreturn]] void AssertFailed(const char* expression, const char* file, int line);

}  // namespace vorelhost

#define VOREL_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : ::vorelhost::AssertFailed(#expr, __FILE__, __LINE__))

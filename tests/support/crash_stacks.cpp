// Linked into every test executable: a crash (segmentation fault, bus error, abort...) prints
// the crashing thread's stack before the process dies of it as it would have, so that a rare
// one explains itself. Addresses printed as "file(+0xOFFSET)" resolve with
// `addr2line -Cfpe file 0xOFFSET`. Under a sanitizer, which prints its own report, nothing is
// installed.
#include <execinfo.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUILLANE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QUILLANE_SANITIZED 1
#endif
#endif

#ifndef QUILLANE_SANITIZED
namespace {

// Async-signal-safe output only: write(2), no allocation, no stdio.
void say(const char* text) {
  for (size_t length = ::strlen(text); length > 0;) {
    const ssize_t written = ::write(STDERR_FILENO, text, length);
    if (written <= 0) return;
    text += written;
    length -= size_t(written);
  }
}

void sayNumber(uintptr_t value, unsigned base = 10) {
  char digits[24];
  char* at = digits + sizeof digits;
  *--at = '\0';
  do {
    *--at = "0123456789abcdef"[value % base];
    value /= base;
  } while (value != 0);
  if (base == 16) say("0x");
  say(at);
}

void printStackAndDie(int signal, siginfo_t* info, void*) {
  char thread[17] = {};
  ::prctl(PR_GET_NAME, thread, 0, 0, 0);
  say("\n*** Fatal signal "), sayNumber(uintptr_t(signal)), say(" (");
  say(sigabbrev_np(signal) ? sigabbrev_np(signal) : "?"), say(")");
  // The address a fault touched: near zero, a null pointer; elsewhere, memory already given back.
  if (signal != SIGABRT && info) say(" at "), sayNumber(reinterpret_cast<uintptr_t>(info->si_addr), 16);
  say(" in thread "), sayNumber(uintptr_t(::syscall(SYS_gettid))), say(" \""), say(thread);
  say("\" of process "), sayNumber(uintptr_t(::getpid())), say("; its stack, innermost first:\n");
  void* frames[128];
  ::backtrace_symbols_fd(frames, ::backtrace(frames, 128), STDERR_FILENO);
  say("*** end of stack (addr2line -Cfpe FILE 0xOFFSET names a frame)\n");
  // SA_RESETHAND has put the default action back: die of the same signal, as ctest expects.
  ::raise(signal);
}

[[maybe_unused]] const bool installed = [] {
  // backtrace() loads libgcc's unwinder on its first call, which allocates: do it now.
  void* warmUp[1];
  ::backtrace(warmUp, 1);
  // Its own stack for the main thread's handler, so that an overflowed stack is reported too.
  static char alternateStack[64 * 1024];
  stack_t stack{};
  stack.ss_sp = alternateStack;
  stack.ss_size = sizeof alternateStack;
  ::sigaltstack(&stack, nullptr);
  struct sigaction action {};
  action.sa_sigaction = printStackAndDie;
  action.sa_flags = SA_SIGINFO | SA_RESETHAND | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) ::sigaction(signal, &action, nullptr);
  return true;
}();

}  // namespace
#endif

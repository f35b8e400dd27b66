// gtest main for the Qt layers: a QCoreApplication exists for the whole run, so that event
// loops, timers, queued calls and QSignalSpy work inside tests. The widget tests get a
// QApplication on the offscreen platform unless a display is given, with settings, state files
// and the runtime folder in a sandbox of the run (no window takes the size a previous run
// remembered), and the test host's marker, under which the language manager writes nothing.
// A crash (segmentation fault, bus error, abort...) prints the crashing thread's stack before
// the process dies of it as it would have, so that a rare one explains itself: addresses
// printed as "file(+0xOFFSET)" resolve with `addr2line -Cfe file 0xOFFSET`. Under a sanitizer,
// which prints its own report, the handler is not installed.
#include <execinfo.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#ifdef QT_WIDGETS_LIB
#include <QApplication>
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUILLANE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QUILLANE_SANITIZED 1
#endif
#endif

namespace {

#ifndef QUILLANE_SANITIZED
// Async-signal-safe output only: write(2), no allocation, no stdio.
void say(const char* text) {
  size_t length = 0;
  while (text[length] != '\0') ++length;
  while (length > 0) {
    const ssize_t written = ::write(STDERR_FILENO, text, length);
    if (written <= 0) return;
    text += written;
    length -= size_t(written);
  }
}

void sayNumber(long number) {
  char digits[24];
  char* at = digits + sizeof digits;
  *--at = '\0';
  const bool negative = number < 0;
  unsigned long rest = negative ? 0UL - (unsigned long)number : (unsigned long)number;
  do {
    *--at = char('0' + rest % 10);
    rest /= 10;
  } while (rest != 0);
  if (negative) *--at = '-';
  say(at);
}

void sayAddress(const void* address) {
  char digits[2 + 2 * sizeof(uintptr_t) + 1];
  char* at = digits + sizeof digits;
  *--at = '\0';
  uintptr_t rest = reinterpret_cast<uintptr_t>(address);
  do {
    *--at = "0123456789abcdef"[rest % 16];
    rest /= 16;
  } while (rest != 0);
  *--at = 'x';
  *--at = '0';
  say(at);
}

void printStackAndDie(int signal, siginfo_t* info, void*) {
  char thread[17] = {};
  ::prctl(PR_GET_NAME, thread, 0, 0, 0);
  say("\n*** Fatal signal ");
  sayNumber(signal);
  say(" (");
  say(sigabbrev_np(signal) ? sigabbrev_np(signal) : "?");
  say(")");
  // The address a fault touched: near zero, a null pointer; elsewhere, memory already given back.
  if (signal != SIGABRT && info) {
    say(" at ");
    sayAddress(info->si_addr);
  }
  say(" in thread ");
  sayNumber(long(::syscall(SYS_gettid)));
  say(" \"");
  say(thread);
  say("\" of process ");
  sayNumber(long(::getpid()));
  say("; its stack, innermost first:\n");
  void* frames[128];
  ::backtrace_symbols_fd(frames, ::backtrace(frames, 128), STDERR_FILENO);
  say("*** end of stack (addr2line -Cfpe FILE 0xOFFSET names a frame)\n");
  // SA_RESETHAND has put the default action back: die of the same signal, as ctest expects.
  ::raise(signal);
}
#endif

void printStacksOfFatalSignals() {
#ifndef QUILLANE_SANITIZED
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
#endif
}

}  // namespace

int main(int argc, char** argv) {
  printStacksOfFatalSignals();
#ifdef QT_WIDGETS_LIB
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QTemporaryDir home;
  for (const char* name : {"CONFIG", "DATA", "CACHE", "RUNTIME"}) {
    const QString folder = QDir(home.path()).filePath(QString(name).toLower());
    QDir().mkpath(folder);
    QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv(QByteArray("XDG_") + name + (name[1] == 'U' ? "_DIR" : "_HOME"), folder.toUtf8());
  }
  qputenv("XCTestConfigurationFilePath", "ui_tests");
  QApplication app(argc, argv);
#else
  QCoreApplication app(argc, argv);
#endif
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

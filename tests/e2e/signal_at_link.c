// Preloaded (LD_PRELOAD) into a command under test to send it a signal while it writes: at the
// first call of linkat or rename (MARLITH_SIGNAL_AT says which), the moment a finished file is
// given its name, the calling thread raises MARLITH_SIGNAL (a number) MARLITH_SIGNAL_COUNT times
// (default once) before the call goes on, if the process still lives.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

static void SignalAt(const char* call) {
  static int done = 0;
  const char* at = getenv("MARLITH_SIGNAL_AT");
  const char* signal = getenv("MARLITH_SIGNAL");
  if (done || !at || !signal || strcmp(at, call) != 0) return;
  done = 1;
  const char* count = getenv("MARLITH_SIGNAL_COUNT");
  for (int i = count ? atoi(count) : 1; i > 0; --i) raise(atoi(signal));
}

__attribute__((visibility("default"))) int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) {
  SignalAt("linkat");
  int (*real)(int, const char*, int, const char*, int) = dlsym(RTLD_NEXT, "linkat");
  return real(fromFolder, from, toFolder, to, flags);
}

__attribute__((visibility("default"))) int rename(const char* from, const char* to) {
  SignalAt("rename");
  int (*real)(const char*, const char*) = dlsym(RTLD_NEXT, "rename");
  return real(from, to);
}

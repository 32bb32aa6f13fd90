// Preloaded into the program ahead of umockdev's library: opening one of the
// device nodes named in KORVA_SIM_ABSENT_NODES (a ':'-separated list of
// absolute paths) fails with ENOENT right here; every other open goes on to
// the next library unchanged.
//
// Why not leave the node out of the testbed and let the open fall through to
// the host's /dev? Two reasons: the host's own nodes must stay invisible to a
// simulated run, and umockdev's preload keeps an entry for every failed open
// of a /dev path in a small fixed table, aborting the program after a few
// dozen — a program that retries its driver a thousand times would never get
// to the end of its loop.
#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "tools/korva-driver-sim/absent_nodes.h"

namespace {

bool IsAbsent(const char* path) {
  const char* list = std::getenv(KORVA_SIM_ABSENT_NODES_VARIABLE);
  if (list == nullptr || path == nullptr) return false;
  const size_t length = std::strlen(path);
  for (const char* entry = list; *entry != '\0';) {
    const char* end = std::strchr(entry, ':');
    const size_t entryLength = end != nullptr ? static_cast<size_t>(end - entry) : std::strlen(entry);
    if (entryLength == length && std::strncmp(entry, path, length) == 0) return true;
    if (end == nullptr) break;
    entry = end + 1;
  }
  return false;
}

// True (with errno set) when `path` names an absent node.
bool Refuse(const char* path) {
  if (!IsAbsent(path)) return false;
  errno = ENOENT;
  return true;
}

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

using OpenFunction = int (*)(const char*, int, ...);
using OpenAtFunction = int (*)(int, const char*, int, ...);
using OpenCheckedFunction = int (*)(const char*, int);
using OpenAtCheckedFunction = int (*)(int, const char*, int);

bool TakesMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

}  // namespace

// The mode argument is read only when the flags say it was passed.
#define KORVA_SIM_MODE(flags)              \
  mode_t mode = 0;                         \
  if (TakesMode(flags)) {                  \
    va_list args;                          \
    va_start(args, flags);                 \
    mode = va_arg(args, mode_t);           \
    va_end(args);                          \
  }

extern "C" {

int open(const char* path, int flags, ...) {
  KORVA_SIM_MODE(flags)
  if (Refuse(path)) return -1;
  static const OpenFunction next = Next<OpenFunction>("open");
  return next(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  KORVA_SIM_MODE(flags)
  if (Refuse(path)) return -1;
  static const OpenFunction next = Next<OpenFunction>("open64");
  return next(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
  KORVA_SIM_MODE(flags)
  if (Refuse(path)) return -1;
  static const OpenAtFunction next = Next<OpenAtFunction>("openat");
  return next(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
  KORVA_SIM_MODE(flags)
  if (Refuse(path)) return -1;
  static const OpenAtFunction next = Next<OpenAtFunction>("openat64");
  return next(dirfd, path, flags, mode);
}

// The entry points of programs built with _FORTIFY_SOURCE.
int __open_2(const char* path, int flags) {
  if (Refuse(path)) return -1;
  static const OpenCheckedFunction next = Next<OpenCheckedFunction>("__open_2");
  return next(path, flags);
}

int __open64_2(const char* path, int flags) {
  if (Refuse(path)) return -1;
  static const OpenCheckedFunction next = Next<OpenCheckedFunction>("__open64_2");
  return next(path, flags);
}

int __openat_2(int dirfd, const char* path, int flags) {
  if (Refuse(path)) return -1;
  static const OpenAtCheckedFunction next = Next<OpenAtCheckedFunction>("__openat_2");
  return next(dirfd, path, flags);
}

int __openat64_2(int dirfd, const char* path, int flags) {
  if (Refuse(path)) return -1;
  static const OpenAtCheckedFunction next = Next<OpenAtCheckedFunction>("__openat64_2");
  return next(dirfd, path, flags);
}

}  // extern "C"

// Preloaded into the program ahead of umockdev's library, with two jobs:
//
// - Every open of a simulated device node is decided here by the node rules
//   (node_rules.h): an absent node fails with ENOENT, a denied one with
//   EACCES, right here; a present node's open goes on to umockdev, which
//   connects it to the testbed. Every other open goes on unchanged.
// - The N-th allocation of an upload buffer (the size of qvr_korva_upload)
//   returns null with ENOMEM; every other allocation goes on unchanged.
//
// Each open of a node and each allocation made to fail is noted in the
// events file, for the simulator's summary.
//
// Every other open of an absolute path outside /dev, /sys, /proc and /run
// (the only places umockdev redirects) goes straight to the C library.
// umockdev's wrappers hold every signal blocked while the call they wrap
// runs: a program blocked there (opening a FIFO nobody writes to) could then
// be stopped by SIGKILL only, not by SIGTERM or Ctrl-C.
//
// Why not leave a node out of the testbed and let the open fall through to
// the host's /dev? Two reasons: the host's own nodes must stay invisible to a
// simulated run, and umockdev's preload keeps an entry for every failed open
// of a /dev path in a small fixed table, aborting the program after a few
// dozen: a program that retries its driver a thousand times would never get
// to the end of its loop.
//
// The library runs inside any program, before and during its start-up and
// inside its allocator: it keeps its state in static storage and reaches the
// events file with plain system calls, never through stdio or the heap.
#include <dlfcn.h>
#include <fcntl.h>
#include <gnu/lib-names.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "configurator/korva_driver.h"
#include "tools/korva-driver-sim/node_rules.h"
#include "tools/korva-driver-sim/preload.h"

namespace {

using korva_sim::kNodeCount;
using korva_sim::kNodePaths;
using korva_sim::NodeRule;
using korva_sim::NodeState;

constexpr size_t kUploadSize = sizeof(qvr_korva_upload);

struct Settings {
  bool ready = false;
  NodeRule rules[korva_sim::kMaxNodeRules];
  size_t ruleCount = 0;
  uint64_t failAlloc = 0;  // 0: no allocation fails
  const char* events = nullptr;
  timespec start{};
};
Settings g_settings;
std::atomic<uint64_t> g_opens[kNodeCount];
std::atomic<uint64_t> g_uploadAllocations{0};

uint64_t ParseNumber(const char* text) {
  uint64_t value = 0;
  return text != nullptr && korva_sim::detail::ParseCount(text, value) ? value : 0;
}

// Reads the environment once; the simulator has checked what it put there.
// The program's clock starts here.
void Setup() {
  if (g_settings.ready) return;
  g_settings.ready = true;
  clock_gettime(CLOCK_MONOTONIC, &g_settings.start);
  g_settings.events = std::getenv(KORVA_SIM_EVENTS_VARIABLE);
  g_settings.failAlloc = ParseNumber(std::getenv(KORVA_SIM_FAIL_ALLOC_VARIABLE));
  const char* rules = std::getenv(KORVA_SIM_NODE_RULES_VARIABLE);
  std::string_view rest = rules != nullptr ? rules : "";
  while (!rest.empty() && g_settings.ruleCount < korva_sim::kMaxNodeRules) {
    const size_t end = rest.find(';');
    if (korva_sim::ParseNodeRule(rest.substr(0, end), g_settings.rules[g_settings.ruleCount])) {
      ++g_settings.ruleCount;
    }
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
  }
}

__attribute__((constructor)) void SetupAtLoad() { Setup(); }

uint64_t ElapsedMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t ms = (static_cast<int64_t>(now.tv_sec) - g_settings.start.tv_sec) * 1000 +
                     (static_cast<int64_t>(now.tv_nsec) - g_settings.start.tv_nsec) / 1000000;
  return ms > 0 ? static_cast<uint64_t>(ms) : 0;
}

// Appends "WORD A B\n" (B left out when negative) to the events file; errno is kept.
void Note(const char* word, uint64_t a, int64_t b) {
  if (g_settings.events == nullptr) return;
  char line[64];
  size_t length = 0;
  const auto put = [&](uint64_t value) {
    char digits[24];
    size_t n = 0;
    do {
      digits[n++] = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value != 0);
    line[length++] = ' ';
    while (n > 0) line[length++] = digits[--n];
  };
  for (const char* c = word; *c != '\0'; ++c) line[length++] = *c;
  put(a);
  if (b >= 0) put(static_cast<uint64_t>(b));
  line[length++] = '\n';
  const int saved = errno;
  const long fd = syscall(SYS_openat, AT_FDCWD, g_settings.events, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) {
    // One write per line, so that lines of several processes never mix.
    if (syscall(SYS_write, fd, line, length) < 0) {
      // Nothing to do: the summary then lacks this line.
    }
    syscall(SYS_close, fd);
  }
  errno = saved;
}

// True (with errno set) when the rules make this open of `path` fail.
bool Refuse(const char* path) {
  if (path == nullptr) return false;
  for (size_t node = 0; node < kNodeCount; ++node) {
    if (std::strcmp(path, kNodePaths[node]) != 0) continue;
    Setup();
    const uint64_t open = g_opens[node].fetch_add(1) + 1;
    const NodeState state =
        korva_sim::StateAt(g_settings.rules, g_settings.ruleCount, node, open, ElapsedMilliseconds());
    const int error = state == NodeState::kAbsent ? ENOENT : state == NodeState::kDenied ? EACCES : 0;
    Note("open", node, error);
    if (error == 0) return false;
    errno = error;
    return true;
  }
  return false;
}

// True (with errno set) when this allocation of `size` bytes is the one to fail.
bool FailAllocation(size_t size) {
  if (size != kUploadSize) return false;
  Setup();
  const uint64_t n = g_uploadAllocations.fetch_add(1) + 1;
  if (n != g_settings.failAlloc) return false;
  Note("alloc", n, -1);
  errno = ENOMEM;
  return true;
}

// ---- Allocations ----------------------------------------------------------------
// The next allocator (the C library's, or a sanitizer's) is found with dlsym,
// which may itself allocate: what it asks for meanwhile comes from a small
// static area, never freed.
alignas(std::max_align_t) char g_bootstrap[16384];
size_t g_bootstrapUsed = 0;
bool g_resolving = false;

void* BootstrapAllocate(size_t size) {
  const size_t rounded = (size + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
  if (rounded > sizeof g_bootstrap - g_bootstrapUsed) return nullptr;
  void* block = g_bootstrap + g_bootstrapUsed;
  g_bootstrapUsed += rounded;
  return block;
}

bool FromBootstrap(const void* block) {
  const char* p = static_cast<const char*>(block);
  return p >= g_bootstrap && p < g_bootstrap + sizeof g_bootstrap;
}

// Resolves `next` once; false while the resolution itself is under way.
template <typename Function>
bool Resolve(Function& next, const char* name) {
  if (next != nullptr) return true;
  if (g_resolving) return false;
  g_resolving = true;
  next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
  g_resolving = false;
  return next != nullptr;
}

using MallocFunction = void* (*)(size_t);
using CallocFunction = void* (*)(size_t, size_t);
using FreeFunction = void (*)(void*);
MallocFunction g_nextMalloc = nullptr;
CallocFunction g_nextCalloc = nullptr;
FreeFunction g_nextFree = nullptr;

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// True for a path umockdev never redirects into its testbed: an absolute
// path outside /dev, /sys, /proc and /run. Relative paths stay with
// umockdev, which follows the working directory into the testbed.
bool OutsideTestbed(const char* path) {
  if (path == nullptr || path[0] != '/') return false;
  for (const char* top : {"/dev", "/sys", "/proc", "/run"}) {
    const size_t n = std::strlen(top);
    if (std::strncmp(path, top, n) == 0 && (path[n] == '/' || path[n] == '\0')) return false;
  }
  return true;
}

// The C library's own `name`, past every preloaded wrapper.
template <typename Function>
Function Libc(const char* name) {
  void* libc = dlopen(LIBC_SO, RTLD_LAZY | RTLD_NOLOAD);
  void* symbol = libc != nullptr ? dlsym(libc, name) : nullptr;
  return symbol != nullptr ? reinterpret_cast<Function>(symbol) : Next<Function>(name);
}

// The function an open of `path` goes on to: the C library's for a path
// outside the testbed, else the next wrapper's (umockdev's).
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
  static const OpenFunction toLibc = Libc<OpenFunction>("open");
  static const OpenFunction toNext = Next<OpenFunction>("open");
  const OpenFunction next = OutsideTestbed(path) ? toLibc : toNext;
  return next(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  KORVA_SIM_MODE(flags)
  if (Refuse(path)) return -1;
  static const OpenFunction toLibc = Libc<OpenFunction>("open64");
  static const OpenFunction toNext = Next<OpenFunction>("open64");
  const OpenFunction next = OutsideTestbed(path) ? toLibc : toNext;
  return next(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
  KORVA_SIM_MODE(flags)
  if (Refuse(path)) return -1;
  static const OpenAtFunction toLibc = Libc<OpenAtFunction>("openat");
  static const OpenAtFunction toNext = Next<OpenAtFunction>("openat");
  const OpenAtFunction next = OutsideTestbed(path) ? toLibc : toNext;
  return next(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
  KORVA_SIM_MODE(flags)
  if (Refuse(path)) return -1;
  static const OpenAtFunction toLibc = Libc<OpenAtFunction>("openat64");
  static const OpenAtFunction toNext = Next<OpenAtFunction>("openat64");
  const OpenAtFunction next = OutsideTestbed(path) ? toLibc : toNext;
  return next(dirfd, path, flags, mode);
}

// The entry points of programs built with _FORTIFY_SOURCE.
int __open_2(const char* path, int flags) {
  if (Refuse(path)) return -1;
  static const OpenCheckedFunction toLibc = Libc<OpenCheckedFunction>("__open_2");
  static const OpenCheckedFunction toNext = Next<OpenCheckedFunction>("__open_2");
  const OpenCheckedFunction next = OutsideTestbed(path) ? toLibc : toNext;
  return next(path, flags);
}

int __open64_2(const char* path, int flags) {
  if (Refuse(path)) return -1;
  static const OpenCheckedFunction toLibc = Libc<OpenCheckedFunction>("__open64_2");
  static const OpenCheckedFunction toNext = Next<OpenCheckedFunction>("__open64_2");
  const OpenCheckedFunction next = OutsideTestbed(path) ? toLibc : toNext;
  return next(path, flags);
}

int __openat_2(int dirfd, const char* path, int flags) {
  if (Refuse(path)) return -1;
  static const OpenAtCheckedFunction toLibc = Libc<OpenAtCheckedFunction>("__openat_2");
  static const OpenAtCheckedFunction toNext = Next<OpenAtCheckedFunction>("__openat_2");
  const OpenAtCheckedFunction next = OutsideTestbed(path) ? toLibc : toNext;
  return next(dirfd, path, flags);
}

int __openat64_2(int dirfd, const char* path, int flags) {
  if (Refuse(path)) return -1;
  static const OpenAtCheckedFunction toLibc = Libc<OpenAtCheckedFunction>("__openat64_2");
  static const OpenAtCheckedFunction toNext = Next<OpenAtCheckedFunction>("__openat64_2");
  const OpenAtCheckedFunction next = OutsideTestbed(path) ? toLibc : toNext;
  return next(dirfd, path, flags);
}

using FopenFunction = FILE* (*)(const char*, const char*);

FILE* fopen(const char* path, const char* mode) {
  static const FopenFunction toLibc = Libc<FopenFunction>("fopen");
  static const FopenFunction toNext = Next<FopenFunction>("fopen");
  return (OutsideTestbed(path) ? toLibc : toNext)(path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
  static const FopenFunction toLibc = Libc<FopenFunction>("fopen64");
  static const FopenFunction toNext = Next<FopenFunction>("fopen64");
  return (OutsideTestbed(path) ? toLibc : toNext)(path, mode);
}

}  // extern "C"

extern "C" {

// Each ends in a tail call to the next allocator (see CMakeLists.txt).
void* malloc(size_t size) {
  if (!Resolve(g_nextMalloc, "malloc")) return BootstrapAllocate(size);
  if (FailAllocation(size)) return nullptr;
  return g_nextMalloc(size);
}

void* calloc(size_t count, size_t size) {
  if (!Resolve(g_nextCalloc, "calloc")) {
    // Static storage is zeroed and never reused.
    return size != 0 && count > SIZE_MAX / size ? nullptr : BootstrapAllocate(count * size);
  }
  if (size != 0 && count <= SIZE_MAX / size && FailAllocation(count * size)) return nullptr;
  return g_nextCalloc(count, size);
}

void free(void* block) {
  if (block == nullptr || FromBootstrap(block)) return;
  if (Resolve(g_nextFree, "free")) g_nextFree(block);
}

}  // extern "C"

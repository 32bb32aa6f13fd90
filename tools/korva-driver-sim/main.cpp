// korva-driver-sim: runs a program against simulated Korva driver nodes.
//
// The device nodes live in a umockdev testbed; the program runs with the
// umockdev preload library, which hands each ioctl on those nodes back to
// this process. Here a GLib main loop answers them through the driver model
// (sim_model.h) until the program exits. A small preload library of our own
// (preload.cpp), in front of umockdev's, decides every open of a node by the
// node rules (node_rules.h) and makes the upload buffer allocation fail when
// asked to.
#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <umockdev.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/korva-driver-sim/node_rules.h"
#include "tools/korva-driver-sim/preload.h"
#include "tools/korva-driver-sim/sim_model.h"

namespace {

constexpr const char* kPreloadLibrary = "libumockdev-preload.so.0";
constexpr const char* kDefaultVersion = "KORVA-SIM 1.1.0";
constexpr const char* kDefaultDescription = "Simulated Korva DSP driver (korva-driver-sim)";

// Exit status of the simulator's own failures (a bad option, a file it cannot
// write): never the program's, which has not run.
constexpr int kUsageStatus = 2;

// The preload library: built next to this executable.
std::string PreloadLibrary() {
  gchar* self = g_file_read_link("/proc/self/exe", nullptr);
  if (self == nullptr) return KORVA_SIM_PRELOAD_LIBRARY;
  gchar* dir = g_path_get_dirname(self);
  gchar* path = g_build_filename(dir, KORVA_SIM_PRELOAD_LIBRARY, nullptr);
  std::string library = path;
  g_free(path);
  g_free(dir);
  g_free(self);
  return library;
}

// How each node appears in the testbed: its sysfs record, by index of
// korva_sim::kNodePaths.
constexpr const char* kNodeRecords[korva_sim::kNodeCount] = {
    "P: /devices/virtual/sound/card0/hwC0D2\nN: snd/hwC0D2\nE: SUBSYSTEM=sound\n",
    "P: /devices/virtual/misc/qvr_korva\nN: qvr_korva\nE: SUBSYSTEM=misc\n",
};

void Complain(const std::string& message) {
  std::fprintf(stderr, "korva-driver-sim: %s\n", message.c_str());
}

// The node rules, as text: --nodes first, as rules from the start, then each
// --node in the order given (so that a --node wins over --nodes).
std::vector<std::string> NodeRuleTexts(const std::string& nodes, const std::vector<std::string>& texts) {
  std::vector<std::string> all;
  for (const std::string_view name : korva_sim::kNodeNames) {
    if (nodes != "both" && nodes != name) all.push_back(std::string(name) + "=absent");
  }
  all.insert(all.end(), texts.begin(), texts.end());
  return all;
}

// Parses the rules; false with `error` set on a malformed rule or a node
// whose rules count both opens and time.
bool ParseNodeRules(const std::vector<std::string>& texts, std::vector<korva_sim::NodeRule>& rules,
                    std::string& error) {
  if (texts.size() > korva_sim::kMaxNodeRules) {
    error = "--node: more than " + std::to_string(korva_sim::kMaxNodeRules) + " rules";
    return false;
  }
  for (const std::string& text : texts) {
    korva_sim::NodeRule rule;
    if (!korva_sim::ParseNodeRule(text, rule)) {
      error = "--node " + text + ": expected hw|sw=present|absent|denied, optionally @N (from the N-th open) "
              "or @Ts (from T seconds)";
      return false;
    }
    rules.push_back(rule);
  }
  for (size_t node = 0; node < korva_sim::kNodeCount; ++node) {
    bool byOpen = false;
    bool byTime = false;
    for (const korva_sim::NodeRule& rule : rules) {
      byOpen = byOpen || (rule.node == node && rule.start == korva_sim::RuleStart::kOpen);
      byTime = byTime || (rule.node == node && rule.start == korva_sim::RuleStart::kTime);
    }
    if (byOpen && byTime) {
      error = "--node " + std::string(korva_sim::kNodeNames[node]) +
              ": rules of one node start either by opens (@N) or by time (@Ts), not both";
      return false;
    }
  }
  return true;
}

// Whether any open of `node` can reach the testbed: a rule makes it present,
// or it is present before its first rule (node_rules.h).
bool EverPresent(const std::vector<korva_sim::NodeRule>& rules, size_t node) {
  bool coversStart = false;
  for (const korva_sim::NodeRule& rule : rules) {
    if (rule.node != node) continue;
    if (rule.state == korva_sim::NodeState::kPresent) return true;
    coversStart = coversStart || rule.start == korva_sim::RuleStart::kAlways ||
                  (rule.start == korva_sim::RuleStart::kOpen && rule.from == 1) ||
                  (rule.start == korva_sim::RuleStart::kTime && rule.from == 0);
  }
  return !coversStart;
}

// The --dump-cache file, made ready before the run, so that a path it cannot
// be written to stops the simulator before the program runs. A regular file
// (or a new one) is written to a temporary file beside it and renamed over
// it at the end, so that it is never left half-written; anything else that
// exists (a device, a pipe: /dev/stdout) is written directly.
class OutputFile {
 public:
  ~OutputFile() {
    if (fd_ >= 0) close(fd_);
    if (!temp_.empty()) unlink(temp_.c_str());
  }

  bool Open(const std::string& path, std::string& error) {
    path_ = path;
    struct stat info {};
    const bool exists = stat(path.c_str(), &info) == 0;
    if (exists && S_ISDIR(info.st_mode)) {
      error = "cannot write " + path + ": it is a directory";
      return false;
    }
    if (exists && !S_ISREG(info.st_mode)) {
      fd_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    } else {
      std::string temp = path + ".XXXXXX";
      fd_ = mkstemp(temp.data());
      if (fd_ >= 0) {
        temp_ = temp;
        const mode_t mask = umask(0);
        umask(mask);
        fchmod(fd_, exists ? (info.st_mode & 07777) : (0666 & ~mask));
      }
    }
    if (fd_ < 0) {
      error = "cannot write " + path + ": " + std::strerror(errno);
      return false;
    }
    return true;
  }

  bool Commit(const std::vector<uint8_t>& data, std::string& error) {
    size_t done = 0;
    while (done < data.size()) {
      const ssize_t n = write(fd_, data.data() + done, data.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error = "cannot write " + path_ + ": " + std::strerror(n < 0 ? errno : EIO);
        return false;
      }
      done += static_cast<size_t>(n);
    }
    const int closed = close(fd_);
    fd_ = -1;
    if (closed != 0 || (!temp_.empty() && rename(temp_.c_str(), path_.c_str()) != 0)) {
      error = "cannot write " + path_ + ": " + std::strerror(errno);
      return false;
    }
    temp_.clear();
    return true;
  }

 private:
  std::string path_;
  std::string temp_;  // empty: written directly, or already renamed
  int fd_ = -1;
};

struct ChildState {
  GPid pid = 0;
  bool done = false;
  int status = 0;
};

// The signals meant to stop a run go on to the program; the simulator stays
// until the program has ended, so that it can clean up its testbed and
// report. They are blocked from just before the program starts until its
// process id is known here, so that none is lost.
constexpr int kForwardedSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
volatile sig_atomic_t g_programPid = 0;

void Forward(int signal) {
  if (g_programPid > 0) kill(static_cast<pid_t>(g_programPid), signal);
}

sigset_t ForwardedSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kForwardedSignals) sigaddset(&set, signal);
  return set;
}

// The signals the simulator was started with ignored (nohup, a shell's
// background job): the program gets them ignored too, and every other signal
// with its default action, whatever the simulator's libraries set up meanwhile.
sigset_t g_ignoredAtStart;

void NoteIgnoredSignals() {
  sigemptyset(&g_ignoredAtStart);
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) sigaddset(&g_ignoredAtStart, signal);
  }
}

// Runs in the child before exec (after GLib has reset some signals to their
// default): no signal blocked, those ignored that the simulator was given
// ignored, and no other.
void ResetSignals(gpointer /*data*/) {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0) continue;
    const bool ignore = sigismember(&g_ignoredAtStart, signal) == 1;
    if (ignore != (action.sa_handler == SIG_IGN)) std::signal(signal, ignore ? SIG_IGN : SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void OnChildExit(GPid pid, gint status, gpointer data) {
  auto* child = static_cast<ChildState*>(data);
  child->done = true;
  child->status = status;
  g_spawn_close_pid(pid);
}

gboolean OnIoctl(UMockdevIoctlBase* /*handler*/, UMockdevIoctlClient* client, gpointer data) {
  auto* driver = static_cast<korva_sim::Driver*>(data);
  UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
  // The argument is the client's pointer; keep its value so that a peeked
  // descriptor can be let go and the whole argument resolved in one call.
  gulong clientPointer = 0;
  std::memcpy(&clientPointer, arg->data,
              std::min(sizeof clientPointer, static_cast<size_t>(std::max(arg->data_len, 0))));
  std::vector<UMockdevIoctlData*> resolved;

  korva_sim::ArgumentAccess access;
  access.resolve = [&](size_t length) -> uint8_t* {
    GError* error = nullptr;
    UMockdevIoctlData* view = umockdev_ioctl_data_resolve(arg, 0, length, &error);
    if (view == nullptr) {
      Complain(std::string("cannot read the request argument: ") + error->message);
      g_error_free(error);
      return nullptr;
    }
    resolved.push_back(view);
    return view->data;
  };
  access.peek = [&](size_t length) -> std::vector<uint8_t> {
    const uint8_t* head = access.resolve(length);
    if (head == nullptr) return {};
    std::vector<uint8_t> copy(head, head + length);
    GError* error = nullptr;
    if (!umockdev_ioctl_data_reload(arg, &error)) {
      Complain(std::string("cannot reload the request argument: ") + error->message);
      g_error_free(error);
      return {};
    }
    std::memcpy(arg->data, &clientPointer, sizeof clientPointer);
    return copy;
  };

  const korva_sim::Outcome outcome = driver->Handle(umockdev_ioctl_client_get_devnode(client),
                                                    static_cast<uint32_t>(umockdev_ioctl_client_get_request(client)),
                                                    access);
  umockdev_ioctl_client_complete(client, static_cast<glong>(outcome.answer), outcome.error);
  for (UMockdevIoctlData* view : resolved) g_object_unref(view);
  return TRUE;
}

// Exit status of the sim for the child's wait status: the child's own.
int PassOn(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) {
    Complain(std::string("program killed by signal ") + strsignal(WTERMSIG(status)));
    return 128 + WTERMSIG(status);
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  NoteIgnoredSignals();
  int split = argc;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) {
      split = i;
      break;
    }
  }

  CLI::App app{"Runs PROGRAM against simulated Korva driver nodes and records every request.",
               "korva-driver-sim"};
  app.footer(
      "Run as: korva-driver-sim [OPTIONS] -- PROGRAM [ARG...]\n"
      "The program's output and exit status pass through unchanged. The simulator's own failures "
      "(a bad option, a capture folder that is in use or not empty, a cache file it cannot write) "
      "exit with 2 before the program runs; a program that cannot be started, with 127. A capture "
      "or cache file that cannot be written whole after the run also exits with 2.");
  app.set_version_flag("--version", std::string("korva-driver-sim ") + KORVA_SIM_VERSION);
  std::string nodes = "both";
  std::vector<std::string> nodeTexts;
  uint64_t failAlloc = 0;
  korva_sim::DriverConfig config;
  config.dspVersion = kDefaultVersion;
  config.dspDescription = kDefaultDescription;
  std::vector<std::string> answerTexts;
  bool summary = false;
  std::string dumpCache;
  app.add_option("--nodes", nodes, "which of " + std::string(kQvrKorvaHardwareNode) + " (hw) and " +
                                        kQvrKorvaSoftwareNode + " (sw) exist for the whole run")
      ->check(CLI::IsMember({"hw", "sw", "both", "none"}))
      ->capture_default_str();
  app.add_option("--node", nodeTexts,
                 "NODE=STATE[@N|@Ts]: NODE (hw or sw) is present, absent (open fails with ENOENT) or "
                 "denied (EACCES) from its N-th open, or from T seconds of the program's own clock "
                 "(so faketime speeds it up too), or throughout. Repeatable, and over --nodes; "
                 "before its first rule a node is absent if that rule makes it present, else present")
      ->type_name("NODE=STATE[@N|@Ts]")
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--fail-alloc", failAlloc,
                 "the N-th allocation of an upload buffer (" + std::to_string(sizeof(qvr_korva_upload)) +
                     " bytes) in the program returns null with ENOMEM")
      ->type_name("N")
      ->check(CLI::Range(uint64_t{1}, korva_sim::kMaxCount));
  app.add_option("--dsp-version", config.dspVersion, "reply text of the version query")
      ->capture_default_str();
  app.add_option("--dsp-description", config.dspDescription, "reply text of the description query")
      ->capture_default_str();
  app.add_option("--answer", answerTexts,
                 "REQUEST[#N]=VALUE: answer VALUE instead of 0 to REQUEST (its N-th occurrence, from "
                 "1, or every one); a negative VALUE is answered as -1 with errno set to its "
                 "magnitude. A request answered as the configurator takes for a refusal changes "
                 "nothing in the driver. A rule that never met its request is reported after the run.")
      ->type_name("REQUEST[#N]=VALUE")
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  CLI::Option* capture = app.add_option("--capture", config.captureDir,
                 "record every request in DIR/requests.jsonl and DIR/NNNN-REQUEST.bin; DIR must be "
                 "empty or new")
      ->type_name("DIR");
  app.add_flag("--force", config.clearCapture, "clear an earlier capture from the --capture folder first")
      ->needs(capture);
  app.add_flag("--summary", summary, "print what happened and what the driver holds after the run");
  app.add_option("--dump-cache", dumpCache, "write the final cache to FILE")->type_name("FILE");
  try {
    app.parse(split, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
    Complain(std::string(e.what()) + " (see korva-driver-sim --help)");
    return kUsageStatus;
  }
  if (split + 1 >= argc) {
    Complain("no program given; usage: korva-driver-sim [OPTIONS] -- PROGRAM [ARG...]");
    return kUsageStatus;
  }
  for (const std::string& text : answerTexts) {
    korva_sim::AnswerRule rule;
    std::string error;
    if (!korva_sim::ParseAnswerRule(text, rule, error)) {
      Complain(error);
      return kUsageStatus;
    }
    config.answers.push_back(rule);
  }
  const std::vector<std::string> ruleTexts = NodeRuleTexts(nodes, nodeTexts);
  std::vector<korva_sim::NodeRule> nodeRules;
  std::string error;
  if (!ParseNodeRules(ruleTexts, nodeRules, error)) {
    Complain(error);
    return kUsageStatus;
  }
  OutputFile cacheFile;
  if (!dumpCache.empty() && !cacheFile.Open(dumpCache, error)) {
    Complain(error);
    return kUsageStatus;
  }

  korva_sim::Driver driver(config);
  if (!driver.Start(error)) {
    Complain(error);
    return kUsageStatus;
  }

  const std::string preloadLibrary = PreloadLibrary();
  if (!g_file_test(preloadLibrary.c_str(), G_FILE_TEST_EXISTS)) {
    Complain("missing " + preloadLibrary);
    return kUsageStatus;
  }
  UMockdevTestbed* testbed = umockdev_testbed_new();
  UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
  g_signal_connect(handler, "handle-ioctl", G_CALLBACK(OnIoctl), &driver);
  // A node that is never present stays out of the testbed: the preload
  // library refuses every open of it.
  for (size_t node = 0; node < korva_sim::kNodeCount; ++node) {
    if (!EverPresent(nodeRules, node)) continue;
    const char* devnode = korva_sim::kNodePaths[node];
    GError* gerror = nullptr;
    if (!umockdev_testbed_add_from_string(testbed, kNodeRecords[node], &gerror) ||
        !umockdev_testbed_attach_ioctl(testbed, devnode, handler, &gerror)) {
      Complain(std::string("cannot create ") + devnode + ": " + gerror->message);
      g_error_free(gerror);
      g_object_unref(handler);
      g_object_unref(testbed);
      return kUsageStatus;
    }
  }

  std::string ruleList;
  for (const std::string& text : ruleTexts) ruleList += (ruleList.empty() ? "" : ";") + text;
  gchar* root = umockdev_testbed_get_root_dir(testbed);
  const std::string eventsPath = std::string(root) + "/korva-sim-events";
  gchar** env = g_get_environ();
  std::string preload = preloadLibrary + ":" + kPreloadLibrary;
  if (const gchar* outer = g_environ_getenv(env, "LD_PRELOAD"); outer != nullptr && *outer != '\0') {
    preload += std::string(":") + outer;
  }
  env = g_environ_setenv(env, "LD_PRELOAD", preload.c_str(), TRUE);
  env = g_environ_setenv(env, "UMOCKDEV_DIR", root, TRUE);
  env = g_environ_setenv(env, KORVA_SIM_NODE_RULES_VARIABLE, ruleList.c_str(), TRUE);
  env = g_environ_setenv(env, KORVA_SIM_EVENTS_VARIABLE, eventsPath.c_str(), TRUE);
  if (failAlloc != 0) {
    env = g_environ_setenv(env, KORVA_SIM_FAIL_ALLOC_VARIABLE, std::to_string(failAlloc).c_str(), TRUE);
  } else {
    env = g_environ_unsetenv(env, KORVA_SIM_FAIL_ALLOC_VARIABLE);
  }
  g_free(root);

  struct sigaction forward {};
  forward.sa_handler = Forward;
  forward.sa_flags = SA_RESTART;
  sigemptyset(&forward.sa_mask);
  for (const int signal : kForwardedSignals) {
    if (sigismember(&g_ignoredAtStart, signal) == 0) sigaction(signal, &forward, nullptr);
  }
  const sigset_t forwarded = ForwardedSignals();
  sigset_t unblocked;
  pthread_sigmask(SIG_BLOCK, &forwarded, &unblocked);
  GPid pid = 0;
  GError* spawnError = nullptr;
  const auto flags = static_cast<GSpawnFlags>(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_SEARCH_PATH |
                                              G_SPAWN_CHILD_INHERITS_STDIN);
  const gboolean spawned =
      g_spawn_async(nullptr, argv + split + 1, env, flags, ResetSignals, nullptr, &pid, &spawnError);
  if (spawned) g_programPid = pid;
  pthread_sigmask(SIG_SETMASK, &unblocked, nullptr);
  g_strfreev(env);
  int status = 127;
  if (!spawned) {
    Complain(std::string("cannot run ") + argv[split + 1] + ": " + spawnError->message);
    g_error_free(spawnError);
  } else {
    ChildState child;
    child.pid = pid;
    g_child_watch_add(pid, OnChildExit, &child);
    while (!child.done) g_main_context_iteration(nullptr, TRUE);
    status = PassOn(child.status);
  }

  // After the run the simulator reports; only a record it could not write
  // whole changes the program's exit status.
  if (spawned) {
    korva_sim::Injections injections;
    if (!korva_sim::ReadInjections(eventsPath, injections, error)) Complain(error);
    if (summary) {
      std::fflush(stdout);
      driver.PrintSummary(stdout, injections);
      std::fflush(stdout);
    }
    if (failAlloc != 0 && injections.failedAllocations.empty()) {
      Complain("--fail-alloc " + std::to_string(failAlloc) + " never applied: the program made fewer upload "
               "buffer allocations");
    }
    for (const korva_sim::AnswerRule& rule : driver.UnmatchedAnswers()) {
      Complain("--answer " + rule.text + " never applied: the program sent fewer " + rule.request + " requests");
    }
    // What the run leaves behind is whole, or the run fails: a capture or
    // cache file that could not be written whole turns the exit status to 2.
    bool whole = true;
    if (!driver.captureError().empty()) {
      Complain("capture incomplete: " + driver.captureError() + "; " + config.captureDir +
               "/requests.jsonl holds the first " + std::to_string(driver.recorded()) + " requests");
      whole = false;
    }
    if (!dumpCache.empty() && driver.cache().empty()) {
      Complain("--dump-cache: the program set up no cache; " + dumpCache + " not written");
    } else if (!dumpCache.empty() && !cacheFile.Commit(driver.cache(), error)) {
      Complain(error);
      whole = false;
    }
    if (!whole) {
      if (status != 0) Complain("the program's exit status was " + std::to_string(status));
      status = kUsageStatus;
    }
  }
  g_object_unref(handler);
  g_object_unref(testbed);
  return status;
}

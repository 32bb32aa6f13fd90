// korva-driver-sim: runs a program against simulated Korva driver nodes.
//
// The device nodes live in a umockdev testbed; the program runs with the
// umockdev preload library, which hands each ioctl on those nodes back to
// this process. Here a GLib main loop answers them through the driver model
// (sim_model.h) until the program exits. Nodes left out of the simulation
// are made to fail to open by a small preload library of our own
// (absent_nodes.cpp), which sits in front of umockdev's.
#include <glib-unix.h>
#include <glib.h>
#include <signal.h>
#include <sys/wait.h>
#include <umockdev.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/korva-driver-sim/absent_nodes.h"
#include "tools/korva-driver-sim/sim_model.h"

namespace {

constexpr const char* kPreloadLibrary = "libumockdev-preload.so.0";
constexpr const char* kDefaultVersion = "KORVA-SIM 1.1.0";
constexpr const char* kDefaultDescription = "Simulated Korva DSP driver (korva-driver-sim)";

// The absent-nodes library: built next to this executable.
std::string AbsentNodesLibrary() {
  gchar* self = g_file_read_link("/proc/self/exe", nullptr);
  if (self == nullptr) return KORVA_SIM_ABSENT_NODES_LIBRARY;
  gchar* dir = g_path_get_dirname(self);
  gchar* path = g_build_filename(dir, KORVA_SIM_ABSENT_NODES_LIBRARY, nullptr);
  std::string library = path;
  g_free(path);
  g_free(dir);
  g_free(self);
  return library;
}

// How each node appears in the testbed: its sysfs record and its devnode.
struct NodeEntry {
  const char* devnode;
  const char* record;
};
constexpr NodeEntry kHardwareEntry = {
    kQvrKorvaHardwareNode,
    "P: /devices/virtual/sound/card0/hwC0D2\nN: snd/hwC0D2\nE: SUBSYSTEM=sound\n"};
constexpr NodeEntry kSoftwareEntry = {
    kQvrKorvaSoftwareNode,
    "P: /devices/virtual/misc/qvr_korva\nN: qvr_korva\nE: SUBSYSTEM=misc\n"};

void Complain(const std::string& message) {
  std::fprintf(stderr, "korva-driver-sim: %s\n", message.c_str());
}

struct ChildState {
  GPid pid = 0;
  bool done = false;
  int status = 0;
};

// A signal meant to stop the run goes on to the program; the simulator stays
// until the program has ended, so that it can clean up its testbed.
template <int Signal>
gboolean ForwardSignal(gpointer data) {
  const auto* child = static_cast<const ChildState*>(data);
  if (!child->done) kill(child->pid, Signal);
  return G_SOURCE_CONTINUE;
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
  int split = argc;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) {
      split = i;
      break;
    }
  }

  CLI::App app{"Runs PROGRAM against simulated Korva driver nodes and records every request.",
               "korva-driver-sim"};
  app.footer("Run as: korva-driver-sim [OPTIONS] -- PROGRAM [ARG...]\nThe program's output and exit status pass through unchanged.");
  std::string nodes = "both";
  korva_sim::DriverConfig config;
  config.dspVersion = kDefaultVersion;
  config.dspDescription = kDefaultDescription;
  std::vector<std::string> answerTexts;
  bool summary = false;
  std::string dumpCache;
  app.add_option("--nodes", nodes, "which of " + std::string(kQvrKorvaHardwareNode) + " (hw) and " +
                                        kQvrKorvaSoftwareNode + " (sw) exist")
      ->check(CLI::IsMember({"hw", "sw", "both", "none"}))
      ->capture_default_str();
  app.add_option("--dsp-version", config.dspVersion, "reply text of the version query")
      ->capture_default_str();
  app.add_option("--dsp-description", config.dspDescription, "reply text of the description query")
      ->capture_default_str();
  app.add_option("--answer", answerTexts,
                 "REQUEST[#N]=VALUE: answer VALUE instead of 0 to REQUEST (its N-th occurrence, from "
                 "1, or every one); a negative VALUE is answered as -1 with errno set to its "
                 "magnitude. A refused request changes nothing in the driver.")
      ->type_name("REQUEST[#N]=VALUE")
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--capture", config.captureDir,
                 "record every request in DIR/requests.jsonl and DIR/NNNN-REQUEST.bin")
      ->type_name("DIR");
  app.add_flag("--summary", summary, "print what the driver holds after the run");
  app.add_option("--dump-cache", dumpCache, "write the final cache to FILE")->type_name("FILE");
  try {
    app.parse(split, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  if (split + 1 >= argc) {
    Complain("no program given; usage: korva-driver-sim [OPTIONS] -- PROGRAM [ARG...]");
    return 2;
  }
  for (const std::string& text : answerTexts) {
    korva_sim::AnswerRule rule;
    std::string error;
    if (!korva_sim::ParseAnswerRule(text, rule, error)) {
      Complain(error);
      return 2;
    }
    config.answers.push_back(rule);
  }

  korva_sim::Driver driver(config);
  std::string error;
  if (!driver.Start(error)) {
    Complain(error);
    return 2;
  }

  std::vector<NodeEntry> entries;
  std::string absent;
  for (const auto& [entry, present] : {std::pair{kHardwareEntry, nodes == "hw" || nodes == "both"},
                                       std::pair{kSoftwareEntry, nodes == "sw" || nodes == "both"}}) {
    if (present) {
      entries.push_back(entry);
    } else {
      absent += (absent.empty() ? "" : ":") + std::string(entry.devnode);
    }
  }
  const std::string absentLibrary = AbsentNodesLibrary();
  if (!g_file_test(absentLibrary.c_str(), G_FILE_TEST_EXISTS)) {
    Complain("missing " + absentLibrary);
    return 2;
  }
  UMockdevTestbed* testbed = umockdev_testbed_new();
  UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
  g_signal_connect(handler, "handle-ioctl", G_CALLBACK(OnIoctl), &driver);
  for (const NodeEntry& entry : entries) {
    GError* gerror = nullptr;
    if (!umockdev_testbed_add_from_string(testbed, entry.record, &gerror) ||
        !umockdev_testbed_attach_ioctl(testbed, entry.devnode, handler, &gerror)) {
      Complain(std::string("cannot create ") + entry.devnode + ": " + gerror->message);
      g_error_free(gerror);
      g_object_unref(handler);
      g_object_unref(testbed);
      return 2;
    }
  }

  gchar* root = umockdev_testbed_get_root_dir(testbed);
  gchar** env = g_get_environ();
  std::string preload = absentLibrary + ":" + kPreloadLibrary;
  if (const gchar* outer = g_environ_getenv(env, "LD_PRELOAD"); outer != nullptr && *outer != '\0') {
    preload += std::string(":") + outer;
  }
  env = g_environ_setenv(env, "LD_PRELOAD", preload.c_str(), TRUE);
  env = g_environ_setenv(env, "UMOCKDEV_DIR", root, TRUE);
  env = g_environ_setenv(env, KORVA_SIM_ABSENT_NODES_VARIABLE, absent.c_str(), TRUE);
  g_free(root);

  GPid pid = 0;
  GError* spawnError = nullptr;
  const auto flags = static_cast<GSpawnFlags>(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_SEARCH_PATH |
                                              G_SPAWN_CHILD_INHERITS_STDIN);
  const gboolean spawned =
      g_spawn_async(nullptr, argv + split + 1, env, flags, nullptr, nullptr, &pid, &spawnError);
  g_strfreev(env);
  int status = 127;
  if (!spawned) {
    Complain(std::string("cannot run ") + argv[split + 1] + ": " + spawnError->message);
    g_error_free(spawnError);
  } else {
    ChildState child;
    child.pid = pid;
    g_child_watch_add(pid, OnChildExit, &child);
    g_unix_signal_add(SIGINT, ForwardSignal<SIGINT>, &child);
    g_unix_signal_add(SIGTERM, ForwardSignal<SIGTERM>, &child);
    g_unix_signal_add(SIGHUP, ForwardSignal<SIGHUP>, &child);
    while (!child.done) g_main_context_iteration(nullptr, TRUE);
    status = PassOn(child.status);
  }

  if (spawned && summary) {
    std::fflush(stdout);
    driver.PrintSummary(stdout);
  }
  if (spawned && !dumpCache.empty() && !driver.DumpCache(dumpCache, error)) {
    Complain(error);
    if (status == 0) status = 2;
  }
  g_object_unref(handler);
  g_object_unref(testbed);
  return status;
}

#include "tools/qvrcs/batch.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "configurator/config_file.h"
#include "configurator/settings.h"
#include "tools/qvrcs/io.h"

namespace qvrcs_tool {

// How a checked input travels from a worker to the parent (CBOR keeps every
// byte of the strings, UTF-8 or not).
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SlotReport, slot, index, filename, path, deviceBitmask, readerStatus, parsed,
                                   premixStatus, postmixStatus, outcome, meaning, culprit, log)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CheckWarning, slot, file, code, message, note)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CheckReport, searchPath, storedPath, configPath, configOk, configErrors, slots,
                                   warnings)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CheckedInput, input, isSet, error, report)

namespace {

CheckedInput CheckSet(const std::string& dir, const BatchOptions& options) {
  CheckedInput checked;
  checked.input = dir;
  checked.isSet = true;
  const std::string config = qvr::JoinPath(dir, qvr::kConfigFileName);
  std::string error;
  if (!CheckRegularFile(config, error)) {
    checked.error = config + ": " + error;
    return checked;
  }
  checked.report = Check(dir, options.devicePath);
  return checked;
}

CheckedInput CheckOneFile(const std::string& path, const BatchOptions& options, std::istream& in) {
  CheckedInput checked;
  checked.input = path;
  const std::string shown = path == "-" ? "(standard input)" : path;
  std::string bytes;
  std::string error;
  if (!ReadInput(path, in, bytes, error)) {
    checked.error = Shown(shown) + ": " + error;
    return checked;
  }
  std::string readerPath;
  TempFile copy;
  if (!ReaderInput(path, bytes, options.format, copy, readerPath, error)) {
    checked.error = Located(shown, error);
    return checked;
  }
  checked.report = CheckFile(readerPath, shown, error.empty() ? error : Located(shown, error));
  if (readerPath == path) return checked;
  // The reader saw the copy: its lines name the input instead.
  auto rename = [&](std::string& text) {
    for (size_t at = text.find(copy.path()); at != std::string::npos; at = text.find(copy.path(), at + shown.size())) {
      text.replace(at, copy.path().size(), shown);
    }
  };
  for (SlotReport& slot : checked.report.slots) {
    slot.path = shown;
    rename(slot.log);
    rename(slot.culprit);
  }
  for (CheckWarning& warning : checked.report.warnings) rename(warning.message);
  return checked;
}

// Writes all of `bytes` to `fd`.
bool WriteAll(int fd, const std::vector<uint8_t>& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// One worker process: checks inputs first, first + step, ... and writes each
// as a frame (index, length, CBOR) to `fd`.
[[noreturn]] void Work(const std::vector<std::string>& inputs, size_t first, size_t step,
                       const BatchOptions& options, std::istream& in, int fd) {
  for (size_t i = first; i < inputs.size(); i += step) {
    const std::vector<uint8_t> body = nlohmann::json::to_cbor(nlohmann::json(CheckInput(inputs[i], options, in)));
    const uint32_t head[2] = {static_cast<uint32_t>(i), static_cast<uint32_t>(body.size())};
    const auto* headBytes = reinterpret_cast<const uint8_t*>(head);
    if (!WriteAll(fd, std::vector<uint8_t>(headBytes, headBytes + sizeof head)) || !WriteAll(fd, body)) _exit(1);
  }
  _exit(0);
}

struct Worker {
  pid_t pid = -1;
  int fd = -1;
  std::string buffer;
};

}  // namespace

CheckedInput CheckInput(const std::string& input, const BatchOptions& options, std::istream& in) {
  struct stat info {};
  if (input != "-" && !input.empty() && stat(input.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    return CheckSet(input, options);
  }
  if (std::string folder; ConfigFileFolder(input, folder)) return CheckSet(folder, options);
  return CheckOneFile(input, options, in);
}

void CheckInputs(const std::vector<std::string>& inputs, const BatchOptions& options, std::istream& in,
                 const std::function<void(const CheckedInput&)>& done) {
  const size_t jobs = std::min<size_t>(std::max(1u, options.jobs), inputs.size());
  bool readsStdin = false;
  for (const std::string& input : inputs) readsStdin = readsStdin || input == "-";
  if (jobs <= 1 || readsStdin) {
    for (const std::string& input : inputs) done(CheckInput(input, options, in));
    return;
  }

  std::vector<Worker> workers(jobs);
  for (size_t w = 0; w < jobs; ++w) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) break;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      close(pipeFds[0]);
      for (size_t other = 0; other < w; ++other) close(workers[other].fd);
      Work(inputs, w, jobs, options, in, pipeFds[1]);
    }
    close(pipeFds[1]);
    if (pid < 0) {
      close(pipeFds[0]);
      break;
    }
    workers[w].pid = pid;
    workers[w].fd = pipeFds[0];
  }

  // Results arrive in any order; they are handed on in input order.
  std::map<size_t, CheckedInput> arrived;
  std::vector<bool> checked(inputs.size(), false);
  size_t next = 0;
  auto handOn = [&] {
    for (auto it = arrived.find(next); it != arrived.end(); it = arrived.find(next)) {
      done(it->second);
      arrived.erase(it);
      ++next;
    }
  };
  for (;;) {
    std::vector<pollfd> fds;
    std::vector<Worker*> owners;
    for (Worker& worker : workers) {
      if (worker.fd >= 0) {
        fds.push_back(pollfd{worker.fd, POLLIN, 0});
        owners.push_back(&worker);
      }
    }
    if (fds.empty()) break;
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (size_t k = 0; k < fds.size(); ++k) {
      if (fds[k].revents == 0) continue;
      Worker& worker = *owners[k];
      char chunk[65536];
      const ssize_t n = read(worker.fd, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        close(worker.fd);
        worker.fd = -1;
        continue;
      }
      worker.buffer.append(chunk, static_cast<size_t>(n));
      while (worker.buffer.size() >= 8) {
        uint32_t head[2];
        std::memcpy(head, worker.buffer.data(), sizeof head);
        if (worker.buffer.size() < 8 + static_cast<size_t>(head[1])) break;
        const std::vector<uint8_t> body(worker.buffer.begin() + 8, worker.buffer.begin() + 8 + head[1]);
        worker.buffer.erase(0, 8 + static_cast<size_t>(head[1]));
        if (head[0] < inputs.size() && !checked[head[0]]) {
          checked[head[0]] = true;
          arrived.emplace(head[0], nlohmann::json::from_cbor(body).get<CheckedInput>());
        }
      }
      handOn();
    }
  }
  for (Worker& worker : workers) {
    if (worker.pid > 0) waitpid(worker.pid, nullptr, 0);
  }
  // A worker that could not start or died: its inputs are checked here.
  for (size_t i = next; i < inputs.size(); ++i) {
    if (!checked[i]) arrived.emplace(i, CheckInput(inputs[i], options, in));
  }
  handOn();
}

}  // namespace qvrcs_tool

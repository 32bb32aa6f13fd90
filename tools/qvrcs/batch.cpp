#include "tools/qvrcs/batch.h"

#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "configurator/config_file.h"
#include "configurator/settings.h"
#include "tools/qvrcs/io.h"

namespace qvrcs_tool {

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
  // Standard input is read by one check at a time, in input order.
  const bool readsStdin = std::find(inputs.begin(), inputs.end(), "-") != inputs.end();
  if (jobs <= 1 || readsStdin) {
    for (const std::string& input : inputs) done(CheckInput(input, options, in));
    return;
  }

  // Each thread takes the next input not yet taken; the results wait here
  // until every input before them is handed on.
  std::mutex mutex;
  std::condition_variable checked;
  std::vector<std::unique_ptr<CheckedInput>> results(inputs.size());
  size_t next = 0;
  auto work = [&] {
    std::unique_lock<std::mutex> lock(mutex);
    while (next < inputs.size()) {
      const size_t i = next++;
      lock.unlock();
      auto result = std::make_unique<CheckedInput>(CheckInput(inputs[i], options, in));
      lock.lock();
      results[i] = std::move(result);
      checked.notify_one();
    }
  };
  std::vector<std::thread> threads;
  // Joined on every way out, an exception from `done` included.
  struct Join {
    std::vector<std::thread>& threads;
    ~Join() {
      for (std::thread& thread : threads) thread.join();
    }
  } join{threads};
  for (size_t t = 0; t < jobs; ++t) threads.emplace_back(work);
  for (size_t i = 0; i < inputs.size(); ++i) {
    std::unique_ptr<CheckedInput> result;
    {
      std::unique_lock<std::mutex> lock(mutex);
      checked.wait(lock, [&] { return results[i] != nullptr; });
      result = std::move(results[i]);
    }
    done(*result);
  }
}

}  // namespace qvrcs_tool

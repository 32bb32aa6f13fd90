#include "tools/qvrcs/tuning.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "configurator/payload.h"
#include "configurator/tuning_reader.h"
#include "qvrcs/qvrcs.h"
#include "tools/qvrcs/io.h"

namespace qvrcs_tool {

bool ReadBytes(const std::string& path, std::string& bytes, std::string& error) {
  return ReadRegularFile(path, bytes, error);
}

bool ParseTuning(const std::string& bytes, Qvrcs& message) {
  bool parsed = false;
  // A message with missing required fields would be logged by protobuf.
  CaptureStderr([&] { parsed = message.ParseFromString(bytes); });
  return parsed;
}

bool ReadInput(const std::string& path, InputKind kind, Input& input, std::string& error) {
  input = Input{};
  input.path = path;
  std::string bytes;
  if (!ReadBytes(path, bytes, error)) return false;

  const bool blockSized = bytes.size() == qvr::kCacheBlockSize;
  if (kind == InputKind::kPayload) {
    if (!blockSized) {
      error = "not a payload: " + std::to_string(bytes.size()) + " bytes, a cache block payload has " +
              std::to_string(qvr::kCacheBlockSize);
      return false;
    }
  } else {
    auto message = std::make_unique<Qvrcs>();
    if (ParseTuning(bytes, *message)) {
      input.tuning = std::move(message);
      return true;
    }
    if (kind == InputKind::kTuning || !blockSized) {
      error = bytes.empty() ? "empty file"
                            : "does not parse as a tuning file (truncated, or not a tuning file)";
      if (!blockSized && kind == InputKind::kAuto && !bytes.empty()) {
        error += "; not a payload either (" + std::to_string(bytes.size()) + " bytes, not " +
                 std::to_string(qvr::kCacheBlockSize) + ")";
      }
      return false;
    }
  }
  input.isPayload = true;
  input.payload.assign(bytes.begin(), bytes.end());
  return true;
}

const KorvaSettings* SelectSettings(const Qvrcs& message, std::string& why) {
  const char* missing = nullptr;
  const KorvaSettings* settings = QVRCS_SelectSettings(message, &missing);
  if (settings == nullptr) why = std::string("the file has no ") + missing;
  return settings;
}

std::unique_ptr<Conversion> Convert(const Qvrcs& message) {
  auto conversion = std::make_unique<Conversion>();
  conversion->settings = SelectSettings(message, conversion->selectError);
  conversion->selected = conversion->settings != nullptr;
  if (!conversion->selected) return conversion;

  ConversionContext context;
  QVRCS_InitContext(context, kSampleRate);
  conversion->premixStatus =
      QVRCS_ConvertPremix(context, *conversion->settings, conversion->premix, true);
  const ListeningModelList models;
  conversion->postmixStatus =
      QVRCS_ConvertPostmix(context, *conversion->settings, conversion->postmix, true, models);
  return conversion;
}

std::vector<uint8_t> PayloadOf(const Conversion& conversion) {
  std::vector<uint8_t> payload(qvr::kCacheBlockSize, 0);
  std::copy(conversion.premix.begin(), conversion.premix.end(),
            payload.begin() + qvr::kPremixPayloadOffset);
  std::copy(conversion.postmix.begin(), conversion.postmix.end(),
            payload.begin() + qvr::kPostmixPayloadOffset);
  return payload;
}

ReaderRun RunReader(const std::string& path) {
  ReaderRun run;
  run.payload.assign(qvr::kCacheBlockSize, 0);
  run.log = CaptureStderr([&] { run.status = QVRCS_GetPremixData(path.c_str(), run.payload.data()); });
  return run;
}

StderrCapture::StderrCapture() {
  std::fflush(stderr);
  // An anonymous file in memory: no file system work per capture.
  file_ = memfd_create("qvrcs-stderr", MFD_CLOEXEC);
  if (file_ < 0) return;  // nothing captured; the lines go where they would
  saved_ = dup(STDERR_FILENO);
  if (saved_ < 0 || dup2(file_, STDERR_FILENO) < 0) {
    if (saved_ >= 0) close(saved_);
    close(file_);
    saved_ = file_ = -1;
  }
}

std::string StderrCapture::Finish() {
  if (file_ < 0) return {};
  std::fflush(stderr);
  dup2(saved_, STDERR_FILENO);
  close(saved_);
  saved_ = -1;
  std::string text;
  if (lseek(file_, 0, SEEK_SET) == 0) {
    char buffer[4096];
    ssize_t n = 0;
    while ((n = read(file_, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  }
  close(file_);
  file_ = -1;
  return text;
}

StderrCapture::~StderrCapture() { Finish(); }

}  // namespace qvrcs_tool

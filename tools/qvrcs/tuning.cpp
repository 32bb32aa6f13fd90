#include "tools/qvrcs/tuning.h"

#include <google/protobuf/stubs/logging.h>

#include <cstdarg>
#include <cstdio>

#include "configurator/payload.h"

namespace qvrcs_tool {
namespace {

// Collects the reader's log lines, one per line.
__attribute__((format(printf, 2, 0))) void CollectLine(void* context, const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (size < 0) return;
  std::string line(static_cast<size_t>(size) + 1, '\0');
  std::vsnprintf(line.data(), line.size(), format, args);
  line.pop_back();
  static_cast<std::string*>(context)->append(line).append("\n");
}

}  // namespace

void QuietProtobufLog() {
  // Set once: checks run on several threads.
  static const bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
}

std::string Conversion::SelectError() const {
  return reading->selection.missing != nullptr ? std::string("the file has no ") + reading->selection.missing
                                               : std::string();
}

std::vector<uint8_t> Conversion::Payload() const {
  std::vector<uint8_t> payload(qvr::kCacheBlockSize, 0);
  if (reading->stage == qvr::ReaderStage::kConverted) qvr::PlaceBlocks(*reading, payload.data());
  return payload;
}

std::unique_ptr<Conversion> Convert(Input& input) {
  auto conversion = std::make_unique<Conversion>();
  conversion->reading = std::move(input.reading);
  qvr::TuningReading& reading = *conversion->reading;
  reading.selection = qvr::SelectSettings(reading.message);
  if (reading.selection.settings == nullptr) {
    reading.stage = qvr::ReaderStage::kNoSelection;
    return conversion;
  }
  qvr::ConvertSettings(reading, &conversion->trace);
  return conversion;
}

ReaderRun RunReader(const std::string& path) {
  ReaderRun run;
  run.conversion = std::make_unique<Conversion>();
  run.conversion->reading = std::make_unique<qvr::TuningReading>();
  run.payload.assign(qvr::kCacheBlockSize, 0);
  QuietProtobufLog();
  const qvr::LogSink sink{CollectLine, &run.conversion->log};
  run.conversion->readerStatus =
      qvr::ReadTuningFile(path.c_str(), run.payload.data(), *run.conversion->reading, sink, &run.conversion->trace);
  return run;
}

}  // namespace qvrcs_tool

// The Korva driver's control interface: request codes, the records that travel
// with them, and one typed call per request. Every field is in the processor's
// native byte order (little-endian on the target), naturally aligned, no padding.
//
// The request codes and the wire records are defined once, in C, in
// uapi/qvr_korva.h, which the reference driver (driver/) includes as well; this
// header pins their layout and values for C++ and adds what the programs share:
// the request names, the configurator's reading of answers, the typed calls.
// The configurator, the simulated driver and the tools all use it. Only
// configurator/driver.cpp issues the ioctl calls.
#pragma once

#include "configurator/uapi/qvr_korva.h"

#include <cstddef>
#include <cstdint>

#include "configurator/payload.h"
#include "qvrcs/layout.h"

// ---- Device nodes ---------------------------------------------------------------
// The hardware node is tried first on every pass; the software node is its fallback.
constexpr const char* kQvrKorvaHardwareNode = "/dev/snd/hwC0D2";
constexpr const char* kQvrKorvaSoftwareNode = "/dev/" QVR_KORVA_NODE_NAME;

// ---- Records --------------------------------------------------------------------
// Defined once, in C, in uapi/qvr_korva.h (the driver includes the same file);
// here their layout is pinned: the same for 32-bit and 64-bit programs.
static_assert(sizeof(qvr_korva_param_desc) == 16, "param descriptor is 16 bytes");
static_assert(offsetof(qvr_korva_param_desc, id) == 0);
static_assert(offsetof(qvr_korva_param_desc, size) == 4);
static_assert(offsetof(qvr_korva_param_desc, offset) == 8);
static_assert(offsetof(qvr_korva_param_desc, device) == 12);

static_assert(sizeof(qvr_korva_cache_block) == 56, "cache block descriptor is 56 bytes");
static_assert(offsetof(qvr_korva_cache_block, idx) == 0);
static_assert(offsetof(qvr_korva_cache_block, bitmask) == 4);
static_assert(offsetof(qvr_korva_cache_block, kGlobalOffset) == 8);
static_assert(offsetof(qvr_korva_cache_block, preCmd) == 12);
static_assert(offsetof(qvr_korva_cache_block, preSize) == 16);
static_assert(offsetof(qvr_korva_cache_block, preOff) == 20);
static_assert(offsetof(qvr_korva_cache_block, preFadeCmd) == 24);
static_assert(offsetof(qvr_korva_cache_block, preFadeSize) == 28);
static_assert(offsetof(qvr_korva_cache_block, postOff) == 32);
static_assert(offsetof(qvr_korva_cache_block, postCmd) == 36);
static_assert(offsetof(qvr_korva_cache_block, postSize) == 40);
static_assert(offsetof(qvr_korva_cache_block, fadeOff) == 44);
static_assert(offsetof(qvr_korva_cache_block, postFadeCmd) == 48);
static_assert(offsetof(qvr_korva_cache_block, postFadeSize) == 52);

// The parameter query buffer: descriptor, then the reply space the driver fills.
constexpr size_t kQvrKorvaReplySpace = 4096;
struct qvr_korva_param_query {
  qvr_korva_param_desc desc;
  char reply[kQvrKorvaReplySpace];
};
static_assert(sizeof(qvr_korva_param_query) == 16 + 4096);
static_assert(offsetof(qvr_korva_param_query, reply) == 16);

// One slot's tuning upload: descriptor, then the whole cache block payload.
struct qvr_korva_upload {
  qvr_korva_param_desc desc;
  uint8_t payload[qvr::kCacheBlockSize];
};
static_assert(sizeof(qvr_korva_upload) == 61680, "upload buffer is 61680 bytes");
static_assert(offsetof(qvr_korva_upload, payload) == 16);

// ---- DSP parameter identifiers and descriptor values ----------------------------
constexpr uint32_t PARAM_ID_DSP_DESCRIPTION = QVR_KORVA_PARAM_DSP_DESCRIPTION;  // 2048 bytes of text
constexpr uint32_t PARAM_ID_DSP_VERSION = QVR_KORVA_PARAM_DSP_VERSION;          // 20 bytes of text
constexpr uint32_t PARAM_ID_PREMIX = QVR_KORVA_PARAM_PREMIX;                    // premix block; id of the upload
constexpr uint32_t PARAM_ID_POSTMIX = QVR_KORVA_PARAM_POSTMIX;                  // postmix block

constexpr int32_t kDspVersionSize = 20;
constexpr int32_t kDspDescriptionSize = 2048;
static_assert(kDspDescriptionSize <= static_cast<int32_t>(kQvrKorvaReplySpace));

constexpr uint32_t kDeviceSelectBit = 0x80000000;    // bit 31 of `device`
constexpr uint32_t kDspQueryDevice = 2;              // low device bits of the queries
constexpr int32_t kDspQueryOffset = -1;              // `offset` of the queries
constexpr uint32_t kComboSlotIndex = 4;              // the combo0 slot ...
constexpr uint32_t kComboSlotBit = 0x400000;         // ... always carries this device bit

// ---- Request codes --------------------------------------------------------------
// QVR_KORVA_IOCTL_* (uapi/qvr_korva.h): the size field is that of the declared
// argument type (an int or a pointer), so the four pointer requests differ
// between 32-bit and 64-bit builds. The values each word size puts on the wire:
static_assert(sizeof(void*) == 8 || sizeof(void*) == 4, "a 32-bit or a 64-bit build");
constexpr bool kQvrKorvaPointers64 = sizeof(void*) == 8;
static_assert(QVR_KORVA_IOCTL_SET_CACHE_SIZE == 0x4004F201u);
static_assert(QVR_KORVA_IOCTL_GET_PARAM == (kQvrKorvaPointers64 ? 0x8008F202u : 0x8004F202u));
static_assert(QVR_KORVA_IOCTL_SET_PARAM == (kQvrKorvaPointers64 ? 0x4008F203u : 0x4004F203u));
static_assert(QVR_KORVA_IOCTL_SET_CACHE_BLOCK == (kQvrKorvaPointers64 ? 0x4008F204u : 0x4004F204u));
static_assert(QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS == (kQvrKorvaPointers64 ? 0x4008F209u : 0x4004F209u));

// Every request with its short name (the name tools print and accept).
struct QvrKorvaRequest {
  const char* name;
  uint32_t code;
};
constexpr QvrKorvaRequest kQvrKorvaRequests[] = {
    {"SET_CACHE_SIZE", QVR_KORVA_IOCTL_SET_CACHE_SIZE},
    {"GET_PARAM", QVR_KORVA_IOCTL_GET_PARAM},
    {"SET_PARAM", QVR_KORVA_IOCTL_SET_PARAM},
    {"SET_CACHE_BLOCK", QVR_KORVA_IOCTL_SET_CACHE_BLOCK},
    {"SET_VOLUME_CONTROLS", QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS},
};

// Short name of a request code, or nullptr for a code the driver does not know.
constexpr const char* qvr_request_name(uint32_t code) {
  for (const QvrKorvaRequest& request : kQvrKorvaRequests) {
    if (request.code == code) return request.name;
  }
  return nullptr;
}

// Whether the configurator takes `answer` to request `code` as a refusal: the
// parameter query and the volume request fail on a negative answer only; the
// cache size, cache block and upload requests on any answer but 0.
constexpr bool qvr_answer_refused(uint32_t code, int64_t answer) {
  const bool negativeOnly = code == QVR_KORVA_IOCTL_GET_PARAM || code == QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS;
  return negativeOnly ? answer < 0 : answer != 0;
}

// ---- Cache blocks ---------------------------------------------------------------

// The device bitmask a slot's tuning goes out with: the combo slot always
// carries kComboSlotBit as well; every other slot keeps its bitmask.
constexpr uint32_t qvr_slot_bitmask(uint32_t cacheBlockIndex, uint32_t deviceBitmask) {
  return cacheBlockIndex == kComboSlotIndex ? (deviceBitmask | kComboSlotBit) : deviceBitmask;
}

// The cache block descriptor of block `idx` for an already adjusted bitmask
// (qvr_slot_bitmask). The one place that fills this record.
qvr_korva_cache_block qvr_make_cache_block(uint32_t idx, uint32_t bitmask);

// ---- Driver requests (configurator/driver.cpp) -------------------------------------
// Each returns the ioctl result (negative with errno set on failure).

// Sizes the driver cache, in bytes.
int32_t qvr_set_cache_size(int fd, int32_t size);
// Reads parameter query->desc.id; the driver writes up to desc.size bytes of
// reply into query->reply.
int32_t qvr_get_param(int fd, qvr_korva_param_query* query);
// Writes upload->desc.size payload bytes into the selected cache block.
int32_t qvr_set_param(int fd, const qvr_korva_upload* upload);
// Selects the cache block that the following upload goes to.
int32_t qvr_set_cache_block(int fd, const qvr_korva_cache_block* block);
// Sets the driver's volume controls.
int32_t qvr_set_volume_controls(int fd, uint32_t value);

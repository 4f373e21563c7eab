// runtime.cpp - process and thread life cycle, per-thread settings, status
// callbacks and progress reporting.
//
// Each thread gets its own ThreadSettings record on the first call that needs
// one; the record hangs off a platform thread-local slot whose destructor
// releases it when the thread exits.  When a record cannot be made, the
// process-wide record serves instead, so setters and getters always work
// (shared between such threads).
#include <cstring>

#include "core.h"
#include "dispatch.h"
#include "platform.h"

namespace vk {
namespace {

constexpr uint32_t kSlotValues = 1024;

uint32_t g_slot = plat::kNoSlot;       // platform slot holding each thread's record
// constinit: the library's constructor initialises it, so it must not be
// initialised again by the ordinary static initialisation that may run later.
constinit plat::CriticalSection g_cs;  // guards the caller-slot table (V_TlsAlloc/V_TlsFree)
int g_attach_count = 0;
ThreadSettings g_process_record;       // fallback when a thread record cannot be made
uintptr_t g_process_slots[kSlotValues];
bool g_process_record_ready = false;

void set_initial_values(ThreadSettings& s) {
  s.UserMatchTable = nullptr;
  s.OpenProc = V_OsOpen;
  s.ReadProc = V_OsRead;
  s.WriteProc = V_OsWrite;
  s.SeekProc = V_OsSeek;
  s.CloseProc = V_OsClose;
  s.OpenData = s.ReadData = s.WriteData = s.SeekData = s.CloseData = 0;
  s.DefaultDithering = DITHER_ORDERED;
  s.DefaultXResolution = 150;
  s.DefaultYResolution = 150;
  s.DefaultMemoryType = TYPE_CONVENTIONAL;
  s.TiledThreshold = 0x7FFFFFFF;
  s.MemoryReserve = 0;
  s.TileSize = 0;
  s.MemoryTileLimit = -100;
  s.MappedTileLimit = 1;
  plat::temp_path(s.TempDirectory);
}

void ensure_process_record() {
  if (g_process_record_ready) return;
  std::memset(&g_process_record, 0, sizeof g_process_record);
  set_initial_values(g_process_record);
  g_process_record.Slots = g_process_slots;
  g_process_record_ready = true;
}

// Thread detach: release the exiting thread's record.
void release_thread_record(void* value) {
  auto* s = static_cast<ThreadSettings*>(value);
  if (!s) return;
  V_Free(s->Slots);
  V_Free(s);
}

ThreadSettings* create_thread_record() {
  if (g_slot == plat::kNoSlot) {
    plat::cs_init(g_cs);
    g_slot = plat::tls_alloc(release_thread_record);
    if (g_slot == plat::kNoSlot) {
      plat::cs_delete(g_cs);
      return nullptr;
    }
  }
  auto* s = static_cast<ThreadSettings*>(V_Calloc(1, sizeof(ThreadSettings)));
  if (!s) return nullptr;
  if (!plat::tls_set(g_slot, s)) {
    V_Free(s);
    return nullptr;
  }
  set_initial_values(*s);
  s->Slots = static_cast<uintptr_t*>(V_Calloc(sizeof(uintptr_t), kSlotValues));
  if (!s->Slots) {
    plat::tls_set(g_slot, nullptr);
    V_Free(s);
    return nullptr;
  }
  return s;
}

void process_attach() {
  if (g_attach_count == 0) {
    dispatch::reset_on_attach();
  }
  ensure_process_record();
  create_thread_record();
  ++g_attach_count;
}

void process_detach() {
  --g_attach_count;
  if (g_slot != plat::kNoSlot) {
    if (auto* s = static_cast<ThreadSettings*>(plat::tls_get(g_slot))) {
      // The calling thread's slot array goes; its record stays (by design).
      V_Free(s->Slots);
      s->Slots = nullptr;
    }
    plat::tls_free(g_slot);
    g_slot = plat::kNoSlot;
  }
  plat::cs_delete(g_cs);
}

#if !defined(_WIN32)
// Windows has the library's entry points in the platform layer instead.
__attribute__((constructor)) void on_load() { process_attach(); }
__attribute__((destructor)) void on_unload() { process_detach(); }
#endif

}  // namespace

void plat::on_process_attach() { process_attach(); }
void plat::on_process_detach() { process_detach(); }

ThreadSettings& settings() {
  if (g_slot != plat::kNoSlot) {
    if (auto* s = static_cast<ThreadSettings*>(plat::tls_get(g_slot))) return *s;
  }
  if (ThreadSettings* s = create_thread_record()) return *s;
  ensure_process_record();
  return g_process_record;
}

void runtime_cs_enter() { plat::cs_enter(g_cs); }
void runtime_cs_leave() { plat::cs_leave(g_cs); }

// ---- progress ----------------------------------------------------------------------

Progress::Progress(int32_t total, bool copy, int32_t from, int32_t to)
    : total_(total > 0 ? total : 1), percent_(from), to_(to) {
  cb_ = copy ? V_GetCopyStatusCallBack(&data_) : V_GetStatusCallBack(&data_);
  const int32_t span = to - from;
  q_ = span / total_;
  r_ = span % total_;
}

int32_t Progress::start() {
  if (!cb_) return RESULT_OK;
  last_ = percent_;
  return cb_(percent_, data_);
}

int32_t Progress::step() {
  if (!cb_) return RESULT_OK;
  percent_ += q_;
  acc_ += r_;
  if (acc_ >= total_) {
    acc_ -= total_;
    ++percent_;
  }
  if (percent_ == last_) return RESULT_OK;
  last_ = percent_;
  return cb_(percent_, data_);
}

int32_t Progress::finish() {
  if (!cb_ || last_ == to_) return RESULT_OK;
  last_ = percent_ = to_;
  return cb_(to_, data_);
}

}  // namespace vk

// ---- status callbacks ------------------------------------------------------------------
namespace {
using CallbackField = StatusCallback ThreadSettings::*;
using DataField = intptr_t ThreadSettings::*;

StatusCallback set_callback(CallbackField proc, DataField data, StatusCallback callback, intptr_t userData) {
  ThreadSettings& s = vk::settings();
  StatusCallback old = s.*proc;
  s.*proc = callback;
  s.*data = userData;
  return old;
}

StatusCallback get_callback(CallbackField proc, DataField data, intptr_t* userData) {
  ThreadSettings& s = vk::settings();
  if (userData) *userData = s.*data;
  return s.*proc;
}
}  // namespace

extern "C" {

VK_API StatusCallback VK_CALL V_SetStatusCallBack(StatusCallback callback, intptr_t userData) {
  return set_callback(&ThreadSettings::StatusProc, &ThreadSettings::StatusData, callback, userData);
}

VK_API StatusCallback VK_CALL V_GetStatusCallBack(intptr_t* userData) {
  return get_callback(&ThreadSettings::StatusProc, &ThreadSettings::StatusData, userData);
}

VK_API StatusCallback VK_CALL V_SetCopyStatusCallBack(StatusCallback callback, intptr_t userData) {
  return set_callback(&ThreadSettings::CopyStatusProc, &ThreadSettings::CopyStatusData, callback, userData);
}

VK_API StatusCallback VK_CALL V_GetCopyStatusCallBack(intptr_t* userData) {
  return get_callback(&ThreadSettings::CopyStatusProc, &ThreadSettings::CopyStatusData, userData);
}

}  // extern "C"

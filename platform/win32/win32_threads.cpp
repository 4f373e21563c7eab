// win32_threads.cpp - thread-local slots and critical sections over the
// system's own calls.
//
// The system runs no destructor for a slot when a thread ends: the library's
// entry point calls thread_detach() at thread detach, which hands each
// slot's value for the ending thread to the function given at tls_alloc.
#include <windows.h>

#include <atomic>

#include "platform.h"
#include "win32_internal.h"

namespace vk::plat {
namespace {

// The runtime uses one slot; a few more leave room without a heap.
constexpr int kSlots = 8;
struct SlotEntry {
  std::atomic<uint32_t> slot{kNoSlot};
  std::atomic<void (*)(void*)> on_thread_exit{nullptr};
};
SlotEntry g_slots[kSlots];

}  // namespace

uint32_t tls_alloc(void (*on_thread_exit)(void*)) {
  const DWORD slot = TlsAlloc();
  if (slot == TLS_OUT_OF_INDEXES) return kNoSlot;
  if (on_thread_exit) {
    for (SlotEntry& e : g_slots) {
      uint32_t free_mark = kNoSlot;
      if (e.slot.compare_exchange_strong(free_mark, slot)) {
        e.on_thread_exit = on_thread_exit;
        return slot;
      }
    }
    // No room to remember the function: the slot would leak each thread's value.
    TlsFree(slot);
    return kNoSlot;
  }
  return slot;
}

void* tls_get(uint32_t slot) { return slot == kNoSlot ? nullptr : TlsGetValue(slot); }

bool tls_set(uint32_t slot, void* value) { return slot != kNoSlot && TlsSetValue(slot, value); }

void tls_free(uint32_t slot) {
  if (slot == kNoSlot) return;
  for (SlotEntry& e : g_slots) {
    if (e.slot.load() != slot) continue;
    e.on_thread_exit = nullptr;
    e.slot = kNoSlot;
    break;
  }
  TlsFree(slot);
}

namespace win32 {
void thread_detach() {
  for (SlotEntry& e : g_slots) {
    const uint32_t slot = e.slot.load();
    void (*const release)(void*) = e.on_thread_exit.load();
    if (slot == kNoSlot || !release) continue;
    void* value = TlsGetValue(slot);
    if (!value) continue;
    TlsSetValue(slot, nullptr);
    release(value);
  }
}
}  // namespace win32

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(CriticalSection::storage), "critical section fits the storage");

static CRITICAL_SECTION* native(CriticalSection& cs) { return reinterpret_cast<CRITICAL_SECTION*>(cs.storage); }

void cs_init(CriticalSection& cs) {
  if (cs.initialised) return;
  InitializeCriticalSection(native(cs));
  cs.initialised = true;
}

void cs_enter(CriticalSection& cs) {
  if (cs.initialised) EnterCriticalSection(native(cs));
}

void cs_leave(CriticalSection& cs) {
  if (cs.initialised) LeaveCriticalSection(native(cs));
}

void cs_delete(CriticalSection& cs) {
  if (!cs.initialised) return;
  DeleteCriticalSection(native(cs));
  cs.initialised = false;
}

}  // namespace vk::plat

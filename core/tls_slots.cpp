// tls_slots.cpp - the caller-slot store (V_TlsAlloc and friends): 1024 slot
// numbers shared by the process, each with one value per thread kept in the
// thread's settings record.
//
// The use table and its high-water count are guarded by the runtime's critical
// section, which guards nothing else.  Allocation hands out the
// slot at the high-water count while the count is below 1024 and searches the
// table for a freed slot only once the count has reached 1024, so freed slots
// below the mark are reused only then (by design).
#include <atomic>

#include "core.h"

namespace vk {
namespace {

constexpr uint32_t kSlotCount = 1024;
constexpr uint8_t kInUse = 255;

struct SlotTable {
  uint8_t used[kSlotCount];        // kInUse or 0
  std::atomic<uint32_t> count;     // high-water count
};
SlotTable g_table{};

SlotTable& table() { return g_table; }

struct Guard {
  Guard() { runtime_cs_enter(); }
  ~Guard() { runtime_cs_leave(); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
};

}  // namespace
}  // namespace vk

extern "C" {

VK_API uint32_t VK_CALL V_TlsAlloc(void) {
  return vk::api_call(
      []() -> uint32_t {
        vk::SlotTable& t = vk::table();
        vk::Guard g;
        const uint32_t count = t.count.load(std::memory_order_relaxed);
        if (count < vk::kSlotCount) {
          t.used[count] = vk::kInUse;
          t.count.store(count + 1, std::memory_order_release);
          return count;
        }
        for (uint32_t i = 0; i < vk::kSlotCount; ++i) {
          if (t.used[i] == 0) {
            t.used[i] = vk::kInUse;
            return i;
          }
        }
        return 0xFFFFFFFFu;
      },
      0xFFFFFFFFu);
}

VK_API int32_t VK_CALL V_TlsFree(uint32_t index) {
  return vk::api_call(
      [&]() -> int32_t {
        vk::SlotTable& t = vk::table();
        vk::Guard g;
        const uint32_t count = t.count.load(std::memory_order_relaxed);
        if (index >= vk::kSlotCount || index >= count || t.used[index] == 0) return 0;
        t.used[index] = 0;
        // Only the top slot lowers the mark, and by exactly one, even when
        // the slots below it are already free.
        if (index == count - 1) t.count.store(count - 1, std::memory_order_release);
        return 1;
      },
      0);
}

VK_API int32_t VK_CALL V_TlsSetValue(uint32_t index, uintptr_t value) {
  return vk::api_call(
      [&]() -> int32_t {
        if (index >= vk::table().count.load(std::memory_order_acquire)) return 0;
        uintptr_t* slots = vk::settings().Slots;
        if (!slots) return 0;
        slots[index] = value;
        return 1;
      },
      0);
}

VK_API uintptr_t VK_CALL V_TlsGetValue(uint32_t index) {
  return vk::api_call(
      [&]() -> uintptr_t {
        if (index >= vk::table().count.load(std::memory_order_acquire)) return 0;
        const uintptr_t* slots = vk::settings().Slots;
        return slots ? slots[index] : 0;
      },
      uintptr_t{0});
}

}  // extern "C"

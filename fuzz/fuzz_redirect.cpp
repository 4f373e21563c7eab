// Redirection into a memory buffer driven by a fuzzed script of opens,
// reads, writes, seeks and closes.  Afterwards the reported length never
// exceeds the block, and every byte of it can be read.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform.h"
#include "vkkrn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint32_t flags = data[0] & (REDIRECT_GROW | REDIRECT_SHRINK | REDIRECT_READ_ONLY | REDIRECT_HAS_DATA);
  const uint32_t initial = data[1] * 16u;
  void* block = initial ? V_OsAlloc(initial) : nullptr;
  if (block) std::memset(block, 0xA5, initial);
  BufferRedirect* ctx = nullptr;
  if (V_StartRedirectToBuffer(&ctx, nullptr, flags, block, block ? initial : 0) != RESULT_OK) {
    if (block) V_OsFree(block);
    return 0;
  }
  uint8_t scratch[4096] = {};
  for (size_t i = 2; i + 3 <= size; i += 3) {
    const uint32_t arg = data[i + 1] | (data[i + 2] << 8);
    switch (data[i] % 6) {
      case 0: V_RedirectedOpen("", (data[i] & 8) ? VK_O_RDWR | VK_O_TRUNC : VK_O_RDWR, 0); break;
      case 1: V_RedirectedRead(REDIRECT_HANDLE, scratch, int32_t(arg % sizeof scratch)); break;
      case 2: V_RedirectedWrite(REDIRECT_HANDLE, scratch, int32_t(arg % sizeof scratch)); break;
      case 3: V_RedirectedSeek(REDIRECT_HANDLE, int32_t(arg) * ((data[i] & 8) ? 64 : 1), VK_SEEK_SET); break;
      case 4: V_RedirectedSeek(REDIRECT_HANDLE, int32_t(arg) - 32768, (data[i] & 8) ? VK_SEEK_END : VK_SEEK_CUR); break;
      case 5: V_RedirectedClose(REDIRECT_HANDLE); break;
    }
  }
  void* out = nullptr;
  uint32_t length = 0;
  if (V_StopRedirectToBuffer(ctx, &out, &length) != RESULT_OK) abort();
  if (out) {
    if (length > vk::plat::global_size(vk::plat::global_handle(out))) abort();
    volatile uint8_t sum = 0;
    for (uint32_t k = 0; k < length; ++k) sum = uint8_t(sum + static_cast<uint8_t*>(out)[k]);
    V_OsFree(out);
  } else if (length) {
    abort();
  }
  return 0;
}

// result_names.cpp - code -> name table for messages.
#include "result_names.h"

#include "vkkrn.h"

namespace vkimg {
namespace {

struct Entry {
  int32_t code;
  const char* name;
  const char* meaning;
};

constexpr Entry kResults[] = {
    {RESULT_OK, "RESULT_OK", "success"},
    {0, "stopped", "stopped by the status callback"},
    {RESULT_FAIL, "RESULT_FAIL", "memory or storage could not be obtained"},
    {RESULT_NO_BITMAP, "RESULT_NO_BITMAP", "the bitmap has no storage"},
    {RESULT_SEEK_FAILED, "RESULT_SEEK_FAILED", "a seek in disk storage failed"},
    {RESULT_WRITE_FAILED, "RESULT_WRITE_FAILED", "a write to disk storage failed"},
    {RESULT_READ_FAILED, "RESULT_READ_FAILED", "a read from disk storage failed"},
    {RESULT_BAD_AREA, "RESULT_BAD_AREA", "the requested area holds no pixels"},
    {RESULT_BAD_PARAMETER, "RESULT_BAD_PARAMETER", "a null or out-of-range argument"},
    {RESULT_BAD_FORMAT, "RESULT_BAD_FORMAT", "unsupported layout"},
    {RESULT_BAD_BITS_PER_PIXEL, "RESULT_BAD_BITS_PER_PIXEL", "unsupported bits per pixel"},
    {RESULT_NOT_SET, "RESULT_NOT_SET", "no dispatch table was set"},
    {RESULT_TEMP_FILE_FAILED, "RESULT_TEMP_FILE_FAILED", "a temp file for storage could not be created"},
    {RESULT_HOTKEY_FAILED, "RESULT_HOTKEY_FAILED", "hot-key failure"},
    {RESULT_HOTKEY_WINDOW_FAILED, "RESULT_HOTKEY_WINDOW_FAILED", "the hot-key window could not be created"},
};

const Entry* find(int32_t code) {
  for (const Entry& e : kResults)
    if (e.code == code) return &e;
  return nullptr;
}

}  // namespace

const char* result_name(int32_t code) {
  const Entry* e = find(code);
  return e ? e->name : nullptr;
}

std::string describe_result(int32_t code) {
  const Entry* e = find(code);
  if (!e) return "result " + std::to_string(code);
  return std::string(e->name) + " (" + std::to_string(code) + "): " + e->meaning;
}

}  // namespace vkimg

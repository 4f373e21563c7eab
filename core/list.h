// list.h - the inside of a bitmap list, for the list operations that live
// above core (the copy of items copies whole bitmaps).
#pragma once

#include <cstdint>

#include "vkkrn.h"

namespace vk {

// A list handle is a V_Os block holding this header; `items` is a V_Os block
// of exactly `count` records, or null when the list is empty.
struct ListHeader {
  uint32_t count;
  BitmapHandle* items;
};

// The header of a list handle; null when the handle is null or names no block.
ListHeader* header_of(BitmapList list);
int32_t create_list(BitmapList* out, ListHeader** header = nullptr);
// Frees every record's storage, the item array and the header.
int32_t destroy_list(ListHeader* hdr);
// Inserts a record by value at index (UINT32_MAX: at the end).
int32_t insert_item(ListHeader* hdr, uint32_t index, const BitmapHandle* bitmap);
// Shared start of copy and move: the source header, the output pointer and
// the run of items (n = how many the run really covers).
int32_t open_run(BitmapList list, const BitmapList* new_list, uint32_t index, uint32_t count, ListHeader** hdr,
                 uint32_t* n);

// A list being made by copy or move: destroyed with whatever items it got
// unless it is handed to the caller.
class NewList {
 public:
  NewList() = default;
  NewList(const NewList&) = delete;
  NewList& operator=(const NewList&) = delete;
  ~NewList() {
    if (hdr_) destroy_list(hdr_);
  }
  int32_t create() { return create_list(&handle_, &hdr_); }
  ListHeader* operator->() const { return hdr_; }
  ListHeader* get() const { return hdr_; }
  BitmapList release() {
    hdr_ = nullptr;
    return handle_;
  }

 private:
  BitmapList handle_ = nullptr;
  ListHeader* hdr_ = nullptr;
};

}  // namespace vk

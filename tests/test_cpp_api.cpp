// test_cpp_api.cpp - the header-only C++ interface (vkkrn.hpp): ownership
// moves without leaks, failures carry the library's code both ways, and each
// member does what its C call does.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "color_helpers.h"
#include "fault_sweep.h"
#include "vkkrn.hpp"

namespace {

vk::Bitmap random_bitmap(int32_t width, int32_t height, int32_t bits, uint32_t seed = 7) {
  vk::Bitmap b(width, height, bits);
  vkt::fill_random(b.get(), seed);
  return b;
}

using CppApi = vkt::LeakCheck;

TEST_F(CppApi, OwnershipMovesAndEveryRecordIsFreedOnce) {
  vk::Bitmap a = random_bitmap(33, 7, 24);
  const std::vector<uint8_t> pixels = vkt::read_pixels(a.get());

  vk::Bitmap b(std::move(a));  // construction takes the record, a is empty
  EXPECT_FALSE(a);
  EXPECT_EQ(a.get()->Flags, 0u);
  ASSERT_TRUE(b);
  EXPECT_EQ(vkt::read_pixels(b.get()), pixels);

  vk::Bitmap c = random_bitmap(5, 5, 8);
  c = std::move(b);  // assignment frees what c held (the fixture counts)
  EXPECT_FALSE(b);
  EXPECT_EQ(vkt::read_pixels(c.get()), pixels);
  vk::Bitmap& self = c;
  c = std::move(self);
  EXPECT_EQ(vkt::read_pixels(c.get()), pixels);

  BitmapHandle raw = c.release();  // out to the C calls and back
  EXPECT_FALSE(c);
  vk::Bitmap d = vk::Bitmap::adopt(raw);
  EXPECT_EQ(vkt::read_pixels(d.get()), pixels);

  vk::BitmapList list;
  list.push_back(std::move(d));
  list.push_back(random_bitmap(4, 4, 1));
  EXPECT_FALSE(d);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list.item(1).BitsPerPixel, 1);
  vk::Bitmap back = list.take(0);
  EXPECT_EQ(list.size(), 1u);
  EXPECT_EQ(vkt::read_pixels(back.get()), pixels);
  vk::BitmapList moved(std::move(list));  // the list's item goes with it
  EXPECT_EQ(moved.size(), 1u);
  EXPECT_EQ(list.get(), nullptr);
}

TEST_F(CppApi, RowsRangeReadsEveryStoredRow) {
  for (int32_t bits : {1, 4, 12, 24, 64}) {
    vk::Bitmap b = random_bitmap(31, 9, bits, static_cast<uint32_t>(bits));
    const std::vector<uint8_t> pixels = vkt::read_pixels(b.get());
    std::vector<uint8_t> seen;
    uint32_t expect_index = 0;
    for (const vk::Row& row : b.rows()) {
      EXPECT_EQ(row.index, expect_index++);
      ASSERT_EQ(row.size, b.bytes_per_line());
      seen.insert(seen.end(), row.begin(), row.end());
    }
    EXPECT_EQ(seen, pixels) << bits << " bits";
  }
  vk::Bitmap empty;
  EXPECT_EQ(empty.rows().begin(), empty.rows().end());
}

// Each member that maps its arguments or makes a new record, on one bitmap,
// and its C call on an identical one: same record shape, same pixels.  (The
// members that pass their arguments straight to one call are left out.)
TEST_F(CppApi, MembersDoWhatTheirCallDoes) {
  struct Case {
    const char* name;
    int32_t bits;
    std::function<void(vk::Bitmap&)> member;
    std::function<int32_t(BitmapHandle*)> call;
  };
  const Case cases[] = {
      {"reduce", 24, [](vk::Bitmap& b) { b.reduce(4, RESOLVE_FIXED); },
       [](BitmapHandle* h) { return V_ColorResBitmap(h, h, 4, RESOLVE_FIXED, nullptr, nullptr, 0, nullptr, 0); }},
      {"reduce optimised", 24, [](vk::Bitmap& b) { b.reduce(8, RESOLVE_OPTIMISED, 20); },
       [](BitmapHandle* h) { return V_ColorResBitmap(h, h, 8, 0, nullptr, nullptr, 20, nullptr, 0); }},
      {"convert rgb", 8, [](vk::Bitmap& b) { b.convert(48, ORDER_RGB); },
       [](BitmapHandle* h) { return V_ColorResBitmap(h, h, 48, 0, nullptr, nullptr, 0, nullptr, 0); }},
      {"convert gray", 24, [](vk::Bitmap& b) { b.convert(16, ORDER_GRAY); },
       [](BitmapHandle* h) { return V_ColorResBitmap(h, h, 16, RESOLVE_GRAY, nullptr, nullptr, 0, nullptr, 0); }},
      {"rotate", 1, [](vk::Bitmap& b) { b.rotate(27000); },
       [](BitmapHandle* h) { return V_RotateBitmap(h, 27000, ROTATE_RESIZE, 0); }},
      {"copy_rect", 2, [](vk::Bitmap& b) { b = b.copy_rect(-3, 1, 12, 5); },
       [](BitmapHandle* h) {
         BitmapHandle out{};
         const int32_t r = V_CopyBitmapRect(&out, h, -3, 1, 12, 5);
         V_FreeBitmap(h);
         *h = out;
         return r;
       }},
      {"shear vertical", 8, [](vk::Bitmap& b) { b.shear(-2000, false, 0xFF); },
       [](BitmapHandle* h) { return V_ShearBitmap(h, -2000, 0, 0xFF); }},
      {"dib", 4, [](vk::Bitmap& b) { b = vk::Bitmap::from_dib(b.to_dib(2)); },
       [](BitmapHandle* h) {
         VK_HGLOBAL dib = V_ConvertToDIB2(h, 2);
         V_FreeBitmap(h);
         return V_ChangeFromDIB(h, dib);
       }},
      {"alpha", 64, [](vk::Bitmap& b) { b = b.alpha(); },
       [](BitmapHandle* h) {
         BitmapHandle out{};
         const int32_t r = V_GetBitmapAlpha(h, &out);
         V_FreeBitmap(h);
         *h = out;
         return r;
       }},
      {"set_alpha", 24, [](vk::Bitmap& b) { b.set_alpha(random_bitmap(20, 30, 8, 3)); },
       [](BitmapHandle* h) { return V_SetBitmapAlpha(h, random_bitmap(20, 30, 8, 3).get()); }},
      {"copy", 16, [](vk::Bitmap& b) { b = b.copy(TYPE_DISK); },
       [](BitmapHandle* h) {
         BitmapHandle out{};
         const int32_t r = V_CopyBitmap2(&out, h, TYPE_DISK);
         V_FreeBitmap(h);
         *h = out;
         return r;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    vk::Bitmap wrapped = random_bitmap(33, 17, c.bits);
    vk::Bitmap plain = random_bitmap(33, 17, c.bits);
    c.member(wrapped);
    ASSERT_EQ(c.call(plain.get()), RESULT_OK);
    EXPECT_EQ(wrapped.width(), plain.width());
    EXPECT_EQ(wrapped.height(), plain.height());
    EXPECT_EQ(wrapped.bits_per_pixel(), plain.bits_per_pixel());
    EXPECT_EQ(wrapped.order(), plain.order());
    EXPECT_EQ(vkt::Snapshot::palette(wrapped.get()), vkt::Snapshot::palette(plain.get()));
    EXPECT_EQ(vkt::Snapshot::pixels(wrapped.get()), vkt::Snapshot::pixels(plain.get()));
  }
}

// A refused call throws vk::Error with the code and its name, the
// error_code form reports the same code, and the bitmap stays as it was.
TEST_F(CppApi, FailuresCarryTheResultCode) {
  struct Case {
    const char* name;
    int32_t code;
    std::function<void(vk::Bitmap&)> throwing;
    std::function<void(vk::Bitmap&, std::error_code&)> reporting;
  };
  const Case cases[] = {
      {"to_gray 10", RESULT_BAD_PARAMETER, [](vk::Bitmap& b) { b.to_gray(10); },
       [](vk::Bitmap& b, std::error_code& ec) { b.to_gray(10, ec); }},
      {"reduce 9", RESULT_BAD_PARAMETER, [](vk::Bitmap& b) { b.reduce(9); },
       [](vk::Bitmap& b, std::error_code& ec) { b.reduce(9, 0, 0, ec); }},
      {"view 6", RESULT_BAD_PARAMETER, [](vk::Bitmap& b) { b.set_view_perspective(6); },
       [](vk::Bitmap& b, std::error_code& ec) { b.set_view_perspective(6, ec); }},
      {"trim outside", RESULT_BAD_PARAMETER, [](vk::Bitmap& b) { b.trim(100, 0, 5, 5); },
       [](vk::Bitmap& b, std::error_code& ec) { b.trim(100, 0, 5, 5, ec); }},
      {"copy_rect outside", RESULT_BAD_PARAMETER, [](vk::Bitmap& b) { (void)b.copy_rect(0, -9, 5, 5); },
       [](vk::Bitmap& b, std::error_code& ec) { (void)b.copy_rect(0, -9, 5, 5, ec); }},
      {"shear 90", RESULT_BAD_PARAMETER, [](vk::Bitmap& b) { b.shear(9000); },
       [](vk::Bitmap& b, std::error_code& ec) { b.shear(9000, true, 0, ec); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    vk::Bitmap b = random_bitmap(12, 8, 24);
    const vkt::Snapshot before(b.get());
    try {
      c.throwing(b);
      ADD_FAILURE() << "no exception";
    } catch (const vk::Error& e) {
      EXPECT_EQ(e.result(), c.code);
      EXPECT_STREQ(e.name(), vk::result_name(c.code));
      EXPECT_NE(std::string(e.what()).find(vk::result_name(c.code)), std::string::npos) << e.what();
    }
    EXPECT_TRUE(before.unchanged());
    std::error_code ec;
    c.reporting(b, ec);
    EXPECT_EQ(ec, vk::make_error_code(c.code));
    EXPECT_EQ(&ec.category(), &vk::result_category());
    EXPECT_TRUE(before.unchanged());
  }
  vk::Bitmap empty;  // operations on a bitmap without storage
  EXPECT_THROW(empty.flip(), vk::Error);
  std::error_code ec;
  empty.mirror(ec);
  EXPECT_EQ(ec.value(), RESULT_NO_BITMAP);
  empty.rotate(9000, 0, ec);
  EXPECT_EQ(ec.value(), RESULT_NO_BITMAP);
  EXPECT_EQ(empty.to_dib(0, ec), nullptr);  // the C call gives only null
  EXPECT_EQ(ec.value(), RESULT_NO_BITMAP);
  EXPECT_FALSE(vk::Bitmap::from_dib(nullptr, ec));
  EXPECT_EQ(ec.value(), RESULT_BAD_PARAMETER);
  vk::Bitmap refused(0, 0, 24, ORDER_BGR, TYPE_CONVENTIONAL, nullptr, ec);
  EXPECT_TRUE(ec);
  EXPECT_FALSE(refused);
  EXPECT_THROW(vk::Bitmap(4, 4, 9), vk::Error);
  try {  // a failure, not a refusal: super-compressed storage is not available
    vk::Bitmap super(4, 4, 24, ORDER_BGR, 1024);
    ADD_FAILURE() << "no exception";
  } catch (const vk::Error& e) {
    EXPECT_EQ(e.result(), RESULT_FAIL);
  }
  EXPECT_FALSE(vk::make_error_code(RESULT_OK));
}

TEST_F(CppApi, ProgressScopeCancelsAndRestoresTheCallback) {
  vk::Bitmap b = random_bitmap(16, 40, 24);
  const vkt::Snapshot before(b.get());
  {
    vk::ProgressScope stop([](int32_t percent) { return percent < 50; });
    try {
      b.reduce(8);
      ADD_FAILURE() << "not cancelled";
    } catch (const vk::Error& e) {
      EXPECT_EQ(e.result(), vk::kCancelled);
      EXPECT_STREQ(e.name(), "cancelled");
    }
    EXPECT_TRUE(before.unchanged());
    vk::ProgressScope raise([](int32_t) -> bool { throw std::runtime_error("from the callback"); });
    std::error_code ec;
    b.to_gray(8, ec);
    EXPECT_EQ(ec.value(), RESULT_FAIL);
    EXPECT_TRUE(before.unchanged());
  }
  intptr_t data = 1;
  EXPECT_EQ(V_GetStatusCallBack(&data), nullptr);
  EXPECT_EQ(data, 0);
  b.reduce(8);
  EXPECT_EQ(b.bits_per_pixel(), 8);
}

}  // namespace

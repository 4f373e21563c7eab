// orient.cpp - view perspective: the arithmetic of the eight stored
// orientations (a flip of the row order plus a turn), relabelling, points
// and rectangles between orientations, the flips of the pixels as seen, and
// the change of stored orientation that moves the pixels.
//
// Each orientation is a flip bit F (rows stored in reverse order), a turn A
// and, for value 1 only, a reversed mark R (rows stored mirrored).  Values 4,
// 5, 7 and 8 store the image transposed.
#include "geometry.h"

namespace vk {
namespace {

struct Orientation {
  bool valid;
  int32_t flip, turn, reversed;
};
// Key: view perspective 0..8 (6 is not an orientation).
constexpr Orientation kOrientations[9] = {
    {true, 0, 0, 0},   {true, 0, 0, 1},   {true, 1, 0, 0}, {true, 0, 180, 0}, {true, 0, 90, 0},
    {true, 1, 90, 0},  {false, 0, 0, 0},  {true, 1, 270, 0}, {true, 0, 270, 0},
};

bool valid_orientation(int32_t v) { return v >= 0 && v <= 8 && kOrientations[v].valid; }
bool transposed(int32_t v) { return v == 4 || v == 5 || v == 7 || v == 8; }

// What the target value does to the change: a turn taken off and whether the
// image as seen is mirrored (T).  Key: target view perspective 0..8.
struct Target {
  int32_t minus;
  bool mark;
};
constexpr Target kTargets[9] = {{0, false},  {180, true}, {0, true},    {180, false}, {90, false},
                                {90, true},  {0, false},  {270, true},  {270, false}};

int32_t change_params(int32_t from, int32_t to, int32_t& flip, int32_t& angle) {
  if (!valid_orientation(from) || !valid_orientation(to)) return RESULT_BAD_PARAMETER;
  const Orientation& o = kOrientations[from];
  int32_t f = o.flip, a = o.turn - kTargets[to].minus;
  if (kTargets[to].mark) {
    f = !f;
    a = -a;
  }
  if (o.reversed) {
    a += f ? 180 : -180;
    f = !f;
  }
  // The turn can come out as low as -450 (from 1 to 8); every value is
  // brought into 0..359.
  a %= 360;
  if (a < 0) a += 360;
  flip = f;
  angle = a;
  return RESULT_OK;
}

// Key: view perspective 0..8; other values are left as they are.
constexpr int32_t kFlipped[9] = {2, 3, 0, 1, 7, 8, 6, 4, 5};
constexpr int32_t kReversed[9] = {1, 0, 3, 2, 5, 4, 6, 8, 7};

int32_t relabel(BitmapHandle* b, const int32_t (&table)[9], int32_t null_code) {
  if (!b) return null_code;
  if (valid_orientation(b->ViewPerspective)) b->ViewPerspective = table[b->ViewPerspective];
  return RESULT_OK;
}

void map_point(int32_t flip, int32_t angle, int32_t w, int32_t h, int32_t& x, int32_t& y) {
  if (flip) y = h - y - 1;
  const int32_t x0 = x, y0 = y;
  switch (angle) {
    case 90: x = h - y0 - 1; y = x0; break;
    case 180: x = w - x0 - 1; y = h - y0 - 1; break;
    case 270: x = y0; y = w - x0 - 1; break;
    default: break;
  }
}

int32_t change_rect(int32_t from, int32_t w, int32_t h, int32_t to, VK_RECT* r) {
  if (!r) return RESULT_BAD_PARAMETER;
  int32_t flip, angle;
  VK_TRY(change_params(from, to, flip, angle));
  int32_t l = r->left, t = r->top, rt = r->right, bt = r->bottom;
  if (flip) {
    const int32_t nt = h - bt, nb = h - t;
    t = nt;
    bt = nb;
  }
  switch (angle) {
    case 90: *r = VK_RECT{h - bt, l, h - t, rt}; return RESULT_OK;
    case 180: *r = VK_RECT{w - rt, h - bt, w - l, h - t}; return RESULT_OK;
    case 270: *r = VK_RECT{t, w - rt, bt, w - l}; return RESULT_OK;
    default: *r = VK_RECT{l, t, rt, bt}; return RESULT_OK;
  }
}

// The dimensions of the image as seen in `other` for conversions into the
// bitmap's own orientation: exchanged for a transposed bitmap, and once more
// when `other` is 4 or 8 (but not 5 or 7: callers depend on exactly this).
void seen_dims(const BitmapHandle* b, int32_t other, int32_t& w, int32_t& h) {
  w = b->Width;
  h = b->Height;
  if (transposed(b->ViewPerspective)) std::swap(w, h);
  if (other == 4 || other == 8) std::swap(w, h);
}

int32_t flip_bitmap(BitmapHandle* b) {
  if (!allocated(b)) return RESULT_BAD_PARAMETER;
  const int32_t v = b->ViewPerspective;
  if (!valid_orientation(v)) return RESULT_BAD_PARAMETER;
  return transposed(v) ? transform_rows(b, false, true) : transform_rows(b, true, false);
}

int32_t reverse_bitmap(BitmapHandle* b) {
  if (!b) return RESULT_BAD_PARAMETER;
  return transposed(b->ViewPerspective) ? transform_rows(b, true, false) : transform_rows(b, false, true);
}

// Moves the pixels of b from its stored orientation to `wanted`, all or
// nothing.  A flip before a quarter turn is the same as a mirror after it,
// and a flip with a half turn is a mirror alone, so every change is at most
// one turn into a new record followed by one row worker on that record.
int32_t move_pixels(BitmapHandle* b, int32_t wanted) {
  int32_t flip, angle;
  VK_TRY(change_params(b->ViewPerspective, wanted, flip, angle));
  if (angle == 0 || angle == 180) {
    VK_TRY(transform_rows(b, angle == 180 ? !flip : flip != 0, angle == 180));
  } else {
    op::Scratch out;
    Progress none(b->Width);
    VK_TRY(turn_quarter(b, angle == 90 ? 1 : 0, out, none));
    if (flip) VK_TRY(transform_rows(out.get(), false, true));
    op::commit(out, b);
  }
  b->ViewPerspective = wanted;
  return RESULT_OK;
}

int32_t change_view(BitmapHandle* dst, BitmapHandle* src, int32_t wanted, uint32_t dup_flags) {
  if (!allocated(src)) return RESULT_BAD_PARAMETER;
  int32_t flip, angle;
  VK_TRY(change_params(src->ViewPerspective, wanted, flip, angle));
  // Nested operations report nothing; the caller's callback comes back on
  // every way out.
  SuspendStatus quiet;
  if (!dst || dst == src) return src->ViewPerspective == wanted ? RESULT_OK : move_pixels(src, wanted);
  BitmapHandle n;
  std::memset(&n, 0, sizeof n);
  VK_TRY(V_DupBitmapNewDim(&n, src, src->Width, src->Height, src->BitsPerPixel, dup_flags));
  int32_t r = V_CopyBitmapData(&n, src);
  if (r == RESULT_OK && n.ViewPerspective != wanted) r = move_pixels(&n, wanted);
  if (r != RESULT_OK) {
    V_FreeDuplicateBitmap(&n, dup_flags);
    return r;
  }
  *dst = n;
  return RESULT_OK;
}

}  // namespace
}  // namespace vk

extern "C" {

VK_API int32_t VK_CALL V_GetChangeViewPerspectiveParams(int32_t from, int32_t to, int32_t* flip, int32_t* angle) {
  return vk::api_call([&]() -> int32_t {
    if (!flip || !angle) return RESULT_BAD_PARAMETER;
    int32_t f, a;
    VK_TRY(vk::change_params(from, to, f, a));
    *flip = f;
    *angle = a;
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_FlipBitmapViewPerspective(BitmapHandle* bitmap) {
  return vk::api_call([&] { return vk::relabel(bitmap, vk::kFlipped, RESULT_BAD_PARAMETER); });
}
VK_API int32_t VK_CALL V_ReverseBitmapViewPerspective(BitmapHandle* bitmap) {
  return vk::api_call([&] { return vk::relabel(bitmap, vk::kReversed, RESULT_BAD_PARAMETER); });
}
VK_API int32_t VK_CALL V_IntFlipBitmapViewPerspective(BitmapHandle* bitmap) {
  return vk::api_call([&] { return vk::relabel(bitmap, vk::kFlipped, RESULT_NO_BITMAP); });
}
VK_API int32_t VK_CALL V_IntReverseBitmapViewPerspective(BitmapHandle* bitmap) {
  return vk::api_call([&] { return vk::relabel(bitmap, vk::kReversed, RESULT_NO_BITMAP); });
}

VK_API int32_t VK_CALL V_FlipBitmap(BitmapHandle* bitmap) {
  return vk::api_call([&] { return vk::flip_bitmap(bitmap); });
}
VK_API int32_t VK_CALL V_ReverseBitmap(BitmapHandle* bitmap) {
  return vk::api_call([&] { return vk::reverse_bitmap(bitmap); });
}

VK_API int32_t VK_CALL V_PointFromBitmap(BitmapHandle* bitmap, int32_t viewPerspective, int32_t* x, int32_t* y) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap || !x || !y) return RESULT_BAD_PARAMETER;
    if (bitmap->ViewPerspective == viewPerspective) return RESULT_OK;
    int32_t flip, angle;
    VK_TRY(vk::change_params(bitmap->ViewPerspective, viewPerspective, flip, angle));
    vk::map_point(flip, angle, bitmap->Width, bitmap->Height, *x, *y);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_PointToBitmap(BitmapHandle* bitmap, int32_t viewPerspective, int32_t* x, int32_t* y) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap || !x || !y) return RESULT_BAD_PARAMETER;
    if (bitmap->ViewPerspective == viewPerspective) return RESULT_OK;
    int32_t flip, angle, w, h;
    VK_TRY(vk::change_params(viewPerspective, bitmap->ViewPerspective, flip, angle));
    vk::seen_dims(bitmap, viewPerspective, w, h);
    vk::map_point(flip, angle, w, h, *x, *y);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_ChangeRectViewPerspective(int32_t from, int32_t width, int32_t height, int32_t to,
                                                   VK_RECT* rect) {
  return vk::api_call([&] { return vk::change_rect(from, width, height, to, rect); });
}

VK_API int32_t VK_CALL V_RectFromBitmap(BitmapHandle* bitmap, int32_t viewPerspective, VK_RECT* rect) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    return vk::change_rect(bitmap->ViewPerspective, bitmap->Width, bitmap->Height, viewPerspective, rect);
  });
}

VK_API int32_t VK_CALL V_RectToBitmap(BitmapHandle* bitmap, int32_t viewPerspective, VK_RECT* rect) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    int32_t w, h;
    vk::seen_dims(bitmap, viewPerspective, w, h);
    return vk::change_rect(viewPerspective, w, h, bitmap->ViewPerspective, rect);
  });
}

VK_API int32_t VK_CALL V_IntChangeBitmapViewPerspective(BitmapHandle* destination, BitmapHandle* source,
                                                        int32_t viewPerspective, uint32_t dupFlags) {
  return vk::api_call([&] { return vk::change_view(destination, source, viewPerspective, dupFlags); });
}

VK_API int32_t VK_CALL V_ChangeBitmapViewPerspective(BitmapHandle* destination, BitmapHandle* source,
                                                     int32_t viewPerspective) {
  return vk::api_call([&] {
    const bool in_place = !destination || destination == source;
    return vk::change_view(destination, source, viewPerspective,
                           in_place ? 0u : uint32_t{DUP_ALLOCATE | DUP_OWN_PALETTE | DUP_OWN_REGION});
  });
}

}  // extern "C"

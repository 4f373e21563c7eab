// The file layer: V_Os calls over real files, temp names, the per-thread
// redirection table and redirection into a memory buffer.
#include <gtest/gtest.h>

#include <sys/stat.h>
#if !defined(_WIN32)
#include <unistd.h>
#endif

#include <cctype>
#include <cstring>
#include <filesystem>
#include <string>

#include "core.h"
#include "fault_sweep.h"
#include "platform.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_OsCreat, V_OsOpen, V_OsGetTempName, V_StartRedirectToBuffer, V_StopRedirectToBuffer);

namespace {

#if defined(_WIN32)
// The system's temp names: VQ, up to four hex digits (wine leaves out
// leading zeros), .TMP (wine: .tmp); the name stays while a delete-on-close
// file is open.
constexpr char kSeparator = '\\';
constexpr size_t kMinHexDigits = 1, kMaxHexDigits = 4;
constexpr bool kNamelessWhileOpen = false;
#else
constexpr char kSeparator = '/';
constexpr size_t kMinHexDigits = 8, kMaxHexDigits = 8;  // random
constexpr bool kNamelessWhileOpen = true;
#endif

bool exists(const std::string& name) {
  struct stat st;
  return stat(name.c_str(), &st) == 0;
}

std::string temp_name() {
  char name[VK_MAX_PATH];
  EXPECT_EQ(V_OsGetTempName(name), 0);
  return name;
}

// Leaves the thread's table at the V_Os defaults whatever a test did.
struct DefaultTable {
  ~DefaultTable() { V_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, 0); }
};

// ---- V_Os calls ----------------------------------------------------------------------

TEST(File, TempNamesAreUniqueEmptyFilesInTheTempDirectory) {
  EXPECT_EQ(V_OsGetTempName(nullptr), RESULT_BAD_PARAMETER);
  const std::string a = temp_name(), b = temp_name();
  EXPECT_NE(a, b);
  for (const std::string& n : {a, b}) {
    const std::string dir = vk::settings().TempDirectory;
    EXPECT_EQ(n.rfind(dir, 0), 0u) << n;
    const std::string base = n.substr(n.rfind(kSeparator) + 1);
    ASSERT_GE(base.size(), 6 + kMinHexDigits) << base;
    ASSERT_LE(base.size(), 6 + kMaxHexDigits) << base;
    EXPECT_EQ(base.substr(0, 2), "VQ");
    std::string rest = base.substr(2);
    for (char& c : rest) c = char(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(rest.find_first_not_of("0123456789ABCDEF"), rest.size() - 4) << base;
    EXPECT_EQ(rest.substr(rest.size() - 4), ".TMP");
    struct stat st;
    ASSERT_EQ(stat(n.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
#if !defined(_WIN32)
    EXPECT_EQ(st.st_mode & 0777, 0600u);  // other users never read the pixels
#endif
    EXPECT_EQ(V_OsDelete(n.c_str()), 0);
    EXPECT_FALSE(exists(n));
  }
  EXPECT_EQ(V_OsDelete(a.c_str()), -1);
  EXPECT_EQ(V_OsDelete(nullptr), -1);
}

TEST(File, DeleteOnCloseTempFileVanishesAtClose) {
  const long base = vk::fault::live_total();
  const std::string name = temp_name();
  VK_FILE f = V_OsCreat(name.c_str(), VK_CREAT_DELETE_ON_CLOSE);
  ASSERT_NE(f, -1);
  EXPECT_EQ(f % 4, 0);
  EXPECT_NE(f, REDIRECT_HANDLE);
  EXPECT_EQ(vk::fault::live_total(), base + 1);
  // On POSIX the name is gone at once (nothing outlives a killed process);
  // the data lives on behind the handle until it is closed.
  EXPECT_EQ(exists(name), !kNamelessWhileOpen);
  EXPECT_EQ(V_OsWrite(f, "abc", 3, 0), 3);
  char back[3] = {};
  EXPECT_EQ(V_OsSeek(f, 0, VK_SEEK_SET, 0), 0);
  EXPECT_EQ(V_OsRead(f, back, 3, 0), 3);
  EXPECT_EQ(std::string(back, 3), "abc");
  EXPECT_EQ(V_OsClose(f, 0), 0);
  EXPECT_FALSE(exists(name));
  EXPECT_EQ(vk::fault::live_total(), base);
  EXPECT_EQ(V_OsClose(f, 0), -1);  // already closed
}

TEST(File, ReadWriteSeekAndTruncateByWritingNothing) {
  const std::string name = temp_name();
  VK_FILE f = V_OsCreat(name.c_str(), 0);
  ASSERT_NE(f, -1);
  EXPECT_EQ(V_OsWrite(f, "0123456789", 10, 0), 10);
  EXPECT_EQ(V_OsWrite(f, nullptr, 4, 0), -1);
  EXPECT_EQ(V_OsSeek(f, 3, VK_SEEK_SET, 0), 3);
  EXPECT_EQ(V_OsWrite(f, "", 0, 0), 0);  // cut at 3
  EXPECT_EQ(V_OsSeek(f, 0, VK_SEEK_END, 0), 3);
  EXPECT_EQ(V_OsSeek(f, -1, 7, 0), 2);  // any other origin counts from the end
  EXPECT_EQ(V_OsSeek(f, -1, VK_SEEK_CUR, 0), 1);
  char buf[16] = {};
  EXPECT_EQ(V_OsRead(f, buf, 16, 0), 2);  // short read at the end
  EXPECT_EQ(std::string(buf, 2), "12");
  EXPECT_EQ(V_OsRead(f, buf, 16, 0), 0);
  EXPECT_EQ(V_OsRead(f, nullptr, 1, 0), -1);
  EXPECT_EQ(V_OsRead(f, buf, -1, 0), -1);  // a negative count is no size
  EXPECT_EQ(V_OsWrite(f, buf, -1, 0), -1);
  EXPECT_EQ(V_OsSeek(f, -10, VK_SEEK_SET, 0), -1);
  EXPECT_EQ(V_OsClose(f, 0), 0);
  EXPECT_EQ(V_OsDelete(name.c_str()), 0);
}

TEST(File, OpenFlagsMapToDispositionAndAccess) {
  const long base = vk::fault::live_total();
  const std::string name = temp_name();
  ASSERT_EQ(V_OsDelete(name.c_str()), 0);
  EXPECT_EQ(V_OsOpen(nullptr, VK_O_RDWR, 0, 0), -1);
  EXPECT_EQ(V_OsOpen(name.c_str(), VK_O_RDWR, VK_S_IREAD | VK_S_IWRITE, 0), -1);  // missing, no create

  VK_FILE f = V_OsOpen(name.c_str(), VK_O_RDWR | VK_O_CREAT, VK_S_IREAD | VK_S_IWRITE, 0);
  ASSERT_NE(f, -1);
  EXPECT_EQ(V_OsWrite(f, "hello", 5, 0), 5);
  EXPECT_EQ(V_OsClose(f, 0), 0);

  // Read access: writes fail, reads work.
  f = V_OsOpen(name.c_str(), VK_O_RDONLY, VK_S_IREAD, 0);
  ASSERT_NE(f, -1);
  EXPECT_EQ(V_OsWrite(f, "x", 1, 0), -1);
  char buf[8] = {};
  EXPECT_EQ(V_OsRead(f, buf, 8, 0), 5);
  EXPECT_EQ(V_OsClose(f, 0), 0);

  // Truncate an existing file; create replaces one.
  f = V_OsOpen(name.c_str(), VK_O_RDWR | VK_O_TRUNC, 0, 0);
  ASSERT_NE(f, -1);
  EXPECT_EQ(V_OsSeek(f, 0, VK_SEEK_END, 0), 0);
  EXPECT_EQ(V_OsWrite(f, "abc", 3, 0), 3);
  EXPECT_EQ(V_OsClose(f, 0), 0);
  f = V_OsOpen(name.c_str(), VK_O_RDWR | VK_O_CREAT, VK_S_IREAD, 0);
  ASSERT_NE(f, -1);
  EXPECT_EQ(V_OsSeek(f, 0, VK_SEEK_END, 0), 0);
  EXPECT_EQ(V_OsClose(f, 0), 0);
  EXPECT_EQ(V_OsDelete(name.c_str()), 0);
  EXPECT_EQ(vk::fault::live_total(), base);
}

TEST(File, ReadOnlyCreatedFileRefusesWritesAndDeletion) {
  const std::string name = temp_name();
  VK_FILE f = V_OsCreat(name.c_str(), VK_CREAT_READONLY);
  ASSERT_NE(f, -1);
  EXPECT_EQ(V_OsWrite(f, "x", 1, 0), -1);  // read access only
  EXPECT_EQ(V_OsClose(f, 0), 0);
  EXPECT_EQ(vk::plat::file_attributes(name.c_str()) & vk::plat::ATTR_READONLY, vk::plat::ATTR_READONLY);
  EXPECT_EQ(V_OsOpen(name.c_str(), VK_O_RDWR, 0, 0), -1);
  EXPECT_EQ(V_OsDelete(name.c_str()), -1);
  std::filesystem::permissions(name, std::filesystem::perms::owner_write, std::filesystem::perm_options::add);
#if defined(_WIN32)
  EXPECT_EQ(vk::plat::file_attributes(name.c_str()) & vk::plat::ATTR_READONLY, 0);  // the archive bit may stay
#else
  EXPECT_EQ(vk::plat::file_attributes(name.c_str()), vk::plat::ATTR_NORMAL);
#endif
  EXPECT_EQ(V_OsDelete(name.c_str()), 0);
  EXPECT_EQ(vk::plat::file_attributes(name.c_str()), -1);
}

// Every allocation failing in turn: a temp name that cannot be made comes
// back empty (the call still reports 0), a file that cannot be opened or
// made is -1, and nothing is left open.
TEST(File, InjectedFailuresOfFilesAndTempNames) {
  char name[VK_MAX_PATH];
  vkt::fault_sweep([&] { std::strcpy(name, "stale"); },
                   [&] { return V_OsGetTempName(name) == 0 && name[0] ? RESULT_OK : RESULT_FAIL; },
                   [&](const vkt::SweepRun& run) {
                     if (run.result == RESULT_OK) {
                       EXPECT_EQ(V_OsDelete(name), 0);
                     } else {
                       EXPECT_STREQ(name, "");
                       EXPECT_EQ(V_OsCreat(name, 0), -1);
                     }
                   });
  const std::string n = temp_name();
  for (const bool create : {false, true}) {
    vkt::fault_sweep([] {}, [&] { return create ? V_OsCreat(n.c_str(), 0) : V_OsOpen(n.c_str(), VK_O_RDWR, 0, 0); },
                     [&](const vkt::SweepRun& run) {
                       if (run.result != -1) EXPECT_EQ(V_OsClose(run.result, 0), 0);
                       else EXPECT_TRUE(run.fired);
                     });
  }
  EXPECT_EQ(V_OsDelete(n.c_str()), 0);
}

// ---- redirection table ------------------------------------------------------------------

struct Log {
  std::string calls;
  intptr_t data = 0;
};
Log g_log;

int32_t note(const std::string& call, intptr_t d, int32_t result) {
  g_log.calls += call + ";";
  g_log.data = d;
  return result;
}
std::string args(std::initializer_list<long long> v) {
  std::string out;
  for (long long x : v) out += ":" + std::to_string(x);
  return out;
}
VK_FILE VK_CALL log_open(const char* name, int32_t flags, int32_t perm, intptr_t d) {
  return note(std::string("open:") + name + args({flags, perm}), d, 8);
}
int32_t VK_CALL log_read(VK_FILE f, void*, int32_t n, intptr_t d) { return note("read" + args({f, n}), d, n); }
int32_t VK_CALL log_write(VK_FILE f, const void*, int32_t n, intptr_t d) { return note("write" + args({f, n}), d, n); }
int32_t VK_CALL log_seek(VK_FILE f, int32_t o, int32_t w, intptr_t d) { return note("seek" + args({f, o, w}), d, o); }
int32_t VK_CALL log_close(VK_FILE f, intptr_t d) { return note("close" + args({f}), d, 0); }

TEST(Redirect, CallbacksReceiveTheirArgumentsAndUserData) {
  DefaultTable restore;
  g_log = {};
  V_RedirectIO(log_open, log_read, log_write, log_seek, log_close, 77);
  char buf[4];
  EXPECT_EQ(V_RedirectedOpen("img", 0x102, 0x180), 8);
  EXPECT_EQ(V_RedirectedRead(8, buf, 4), 4);
  EXPECT_EQ(V_RedirectedWrite(8, buf, 3), 3);
  EXPECT_EQ(V_RedirectedSeek(8, 12, 1), 12);
  EXPECT_EQ(V_RedirectedClose(8), 0);
  EXPECT_EQ(g_log.calls, "open:img:258:384;read:8:4;write:8:3;seek:8:12:1;close:8;");
  EXPECT_EQ(g_log.data, 77);
}

TEST(Redirect, FilterExchangesTheTable) {
  DefaultTable restore;
  V_RedirectIO(log_open, nullptr, nullptr, nullptr, nullptr, 5);
  // A null open value hands back the current open callback and keeps it;
  // data words are always replaced.
  VK_OPENPROC open = nullptr;
  VK_READPROC read = log_read;
  intptr_t od = 100, rd = 200;
  V_FilterIO(&open, &read, nullptr, nullptr, nullptr, &od, &rd, nullptr, nullptr, nullptr);
  EXPECT_EQ(open, log_open);
  EXPECT_EQ(read, V_OsRead);
  EXPECT_EQ(od, 5);
  EXPECT_EQ(rd, 5);
  intptr_t d[5] = {};
  V_GetFilterIOData(&d[0], &d[1], &d[2], &d[3], &d[4]);
  EXPECT_EQ(d[0], 100);
  EXPECT_EQ(d[1], 200);
  EXPECT_EQ(d[2], 5);
  V_GetFilterIOData(nullptr, nullptr, nullptr, nullptr, nullptr);  // all outputs optional
  g_log = {};
  V_RedirectedOpen("x", 0, 0);
  char buf[2];
  V_RedirectedRead(9, buf, 2);
  EXPECT_EQ(g_log.calls, "open:x:0:0;read:9:2;");
  EXPECT_EQ(g_log.data, 200);
}

// ---- redirection into a buffer --------------------------------------------------------------

TEST(BufferRedirect, GrowsInStepsAndShrinksOnClose) {
  DefaultTable restore;
  const long base = vk::fault::live_total();
  BufferRedirect* ctx = nullptr;
  VK_FILE h = 0;
  EXPECT_EQ(V_StartRedirectToBuffer(nullptr, &h, 0, nullptr, 0), RESULT_BAD_PARAMETER);
  ASSERT_EQ(V_StartRedirectToBuffer(&ctx, &h, REDIRECT_GROW | REDIRECT_SHRINK, nullptr, 0), RESULT_OK);
  EXPECT_EQ(h, REDIRECT_HANDLE);
  EXPECT_EQ(V_RedirectedOpen("ignored", VK_O_WRONLY | VK_O_CREAT, 0), REDIRECT_HANDLE);
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "0123456789", 10), 10);
  EXPECT_EQ(ctx->Capacity, 32768u);
  EXPECT_EQ(ctx->Length, 10u);
  EXPECT_EQ(ctx->Position, 10u);
  EXPECT_EQ(V_RedirectedWrite(4, "x", 1), -1);  // not the pseudo handle
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, nullptr, 1), -1);

  // A write that crosses the end grows to the next whole step.
  std::string big(40000, 'z');
  EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, 0, VK_SEEK_END), 10);
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, big.data(), 40000), 40000);
  EXPECT_EQ(ctx->Capacity, 65536u);
  EXPECT_EQ(ctx->Length, 40010u);
  EXPECT_EQ(V_RedirectedClose(REDIRECT_HANDLE), 0);
  EXPECT_EQ(ctx->Capacity, 40010u);  // grow + shrink: cut to the data

  void* buffer = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(V_StopRedirectToBuffer(ctx, &buffer, &length), RESULT_OK);
  EXPECT_EQ(length, 40010u);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(std::memcmp(buffer, "0123456789zz", 12), 0);
  EXPECT_EQ(vk::plat::global_size(vk::plat::global_handle(buffer)), 40010u);
  V_OsFree(buffer);
  EXPECT_EQ(vk::fault::live_total(), base);
  EXPECT_EQ(V_StopRedirectToBuffer(nullptr, nullptr, nullptr), RESULT_BAD_PARAMETER);
}

// A caller copies Length bytes out of the block: a seek far past the data
// and a zero-byte write must not make it name bytes the block lacks.
TEST(BufferRedirect, LengthNeverExceedsTheBlock) {
  DefaultTable restore;
  for (const uint32_t flags : {0u, uint32_t{REDIRECT_GROW}}) {
    SCOPED_TRACE(flags);
    void* block = V_OsAlloc(100);
    BufferRedirect* ctx = nullptr;
    ASSERT_EQ(V_StartRedirectToBuffer(&ctx, nullptr, flags, block, 100), RESULT_OK);
    EXPECT_EQ(V_RedirectedOpen("", VK_O_RDWR, 0), REDIRECT_HANDLE);
    EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "abcde", 5), 5);
    // Before the start is refused and moves nothing (no wrap to near 4 GiB).
    EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, -6, VK_SEEK_CUR), -1);
    EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, 0, VK_SEEK_CUR), 5);
    EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, 100000, VK_SEEK_SET), 100000);
    EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "", 0), 0);
    void* out = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(V_StopRedirectToBuffer(ctx, &out, &length), RESULT_OK);
    EXPECT_LE(length, vk::plat::global_size(vk::plat::global_handle(out)));
    V_OsFree(out);
  }
}

#if !defined(_WIN32)
// A delete-on-close file never follows a planted link: the link's target
// keeps its contents.  (Making a link on Windows needs a privilege.)
TEST(File, DeleteOnCloseRefusesALinkInPlaceOfTheName) {
  const std::string target = temp_name(), link = temp_name();
  {
    VK_FILE f = V_OsCreat(target.c_str(), 0);
    ASSERT_NE(f, -1);
    EXPECT_EQ(V_OsWrite(f, "keep", 4, 0), 4);
    V_OsClose(f, 0);
  }
  ASSERT_EQ(V_OsDelete(link.c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  EXPECT_EQ(V_OsCreat(link.c_str(), VK_CREAT_DELETE_ON_CLOSE), -1);
  struct stat st;
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 4);
  unlink(link.c_str());
  EXPECT_EQ(V_OsDelete(target.c_str()), 0);
}
#endif

TEST(BufferRedirect, CloseShrinksOnlyWithGrowAndShrinkBothSet) {
  DefaultTable restore;
  for (uint32_t flags : {REDIRECT_GROW, REDIRECT_SHRINK, REDIRECT_GROW | REDIRECT_SHRINK}) {
    BufferRedirect* ctx = nullptr;
    ASSERT_EQ(V_StartRedirectToBuffer(&ctx, nullptr, flags, V_OsAlloc(100), 100), RESULT_OK);
    EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "abc", 3), 3);
    EXPECT_EQ(V_RedirectedClose(REDIRECT_HANDLE), 0);
    EXPECT_EQ(ctx->Capacity, flags == (REDIRECT_GROW | REDIRECT_SHRINK) ? 3u : 100u) << flags;
    EXPECT_EQ(V_RedirectedClose(4), -1);
    void* buffer = nullptr;
    V_StopRedirectToBuffer(ctx, &buffer, nullptr);
    V_OsFree(buffer);
  }
}

TEST(BufferRedirect, ReadOnlyBufferReadsItsCapacityAndRefusesWrites) {
  DefaultTable restore;
  char data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<char>('a' + i);
  BufferRedirect* ctx = nullptr;
  ASSERT_EQ(V_StartRedirectToBuffer(&ctx, nullptr, REDIRECT_READ_ONLY | REDIRECT_GROW | REDIRECT_SHRINK, data, 20),
            RESULT_OK);
  EXPECT_EQ(ctx->Length, 20u);
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "x", 1), -1);
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "x", 0), -1);
  char out[32] = {};
  EXPECT_EQ(V_RedirectedRead(REDIRECT_HANDLE, out, 32), 20);
  EXPECT_EQ(std::memcmp(out, data, 20), 0);
  EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, 0, VK_SEEK_END), 20);
  EXPECT_EQ(V_RedirectedRead(REDIRECT_HANDLE, out, 4), 0);
  EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, -5, VK_SEEK_CUR), 15);
  EXPECT_EQ(V_RedirectedRead(REDIRECT_HANDLE, out, 3), 3);
  EXPECT_EQ(std::string(out, 3), "pqr");
  EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, 25, VK_SEEK_SET), 25);
  EXPECT_EQ(V_RedirectedRead(REDIRECT_HANDLE, out, 1), -1);  // past the data
  EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, 0, 3), -1);
  EXPECT_EQ(V_RedirectedClose(REDIRECT_HANDLE), 0);
  EXPECT_EQ(ctx->Capacity, 20u);  // read-only: never shrunk
  void* buffer = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(V_StopRedirectToBuffer(ctx, &buffer, &length), RESULT_OK);
  EXPECT_EQ(buffer, data);
  EXPECT_EQ(length, 20u);
}

TEST(BufferRedirect, FixedBufferTakesWhatFitsAndOpenTruncates) {
  DefaultTable restore;
  char data[8] = {};
  BufferRedirect* ctx = nullptr;
  ASSERT_EQ(V_StartRedirectToBuffer(&ctx, nullptr, REDIRECT_HAS_DATA, data, 8), RESULT_OK);
  EXPECT_EQ(ctx->Length, 8u);
  EXPECT_EQ(V_RedirectedOpen("", VK_O_RDWR, 0), REDIRECT_HANDLE);
  EXPECT_EQ(ctx->Length, 8u);
  EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, 5, VK_SEEK_SET), 5);
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "abcdef", 6), 3);  // no growth: what fits
  EXPECT_EQ(std::string(data + 5, 3), "abc");
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "z", 1), 0);
  EXPECT_EQ(V_RedirectedSeek(REDIRECT_HANDLE, 20, VK_SEEK_SET), 20);
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "z", 1), -1);  // position past the capacity

  char out[4];
  EXPECT_EQ(V_RedirectedOpen("", VK_O_RDWR | VK_O_TRUNC, 0), REDIRECT_HANDLE);
  EXPECT_EQ(ctx->Length, 0u);
  EXPECT_EQ(ctx->Position, 0u);
  EXPECT_EQ(V_RedirectedRead(REDIRECT_HANDLE, out, 4), 0);
  EXPECT_EQ(V_StopRedirectToBuffer(ctx, nullptr, nullptr), RESULT_OK);
}

TEST(BufferRedirect, NestedStartsRestoreTheTablesTheyReplaced) {
  DefaultTable restore;
  V_RedirectIO(log_open, log_read, log_write, log_seek, log_close, 9);
  BufferRedirect *outer = nullptr, *inner = nullptr;
  ASSERT_EQ(V_StartRedirectToBuffer(&outer, nullptr, REDIRECT_GROW, nullptr, 0), RESULT_OK);
  ASSERT_EQ(V_StartRedirectToBuffer(&inner, nullptr, REDIRECT_GROW, nullptr, 0), RESULT_OK);
  intptr_t d = 0;
  V_GetFilterIOData(nullptr, nullptr, nullptr, nullptr, &d);
  EXPECT_EQ(d, reinterpret_cast<intptr_t>(inner));
  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "inner", 5), 5);
  void* buffer = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(V_StopRedirectToBuffer(inner, &buffer, &length), RESULT_OK);
  EXPECT_EQ(length, 5u);
  V_OsFree(buffer);

  EXPECT_EQ(V_RedirectedWrite(REDIRECT_HANDLE, "outer!", 6), 6);
  ASSERT_EQ(V_StopRedirectToBuffer(outer, &buffer, &length), RESULT_OK);
  EXPECT_EQ(length, 6u);
  EXPECT_EQ(std::memcmp(buffer, "outer!", 6), 0);
  V_OsFree(buffer);

  // Back to the caller's own table, data words included.
  g_log = {};
  EXPECT_EQ(V_RedirectedOpen("f", 0, 0), 8);
  EXPECT_EQ(g_log.data, 9);
}

// Every allocation of a buffer redirection (the context, the first block,
// each growth, the shrink) failed in turn: results are the documented codes,
// the table is intact and nothing leaks.
TEST(BufferRedirect, FaultSweep) {
  DefaultTable restore;
  std::string big(70000, 'q');
  BufferRedirect* ctx = nullptr;
  int32_t w1 = -2, w2 = -2;
  vkt::fault_sweep([&] { ctx = nullptr, w1 = w2 = -2; },
                   [&] {
                     const int32_t r = V_StartRedirectToBuffer(&ctx, nullptr, REDIRECT_GROW | REDIRECT_SHRINK, nullptr, 0);
                     if (r == RESULT_OK) {
                       w1 = V_RedirectedWrite(REDIRECT_HANDLE, "hello", 5);
                       w2 = V_RedirectedWrite(REDIRECT_HANDLE, big.data(), 70000);
                       V_RedirectedClose(REDIRECT_HANDLE);
                     }
                     return r;
                   },
                   [&](const vkt::SweepRun& run) {
                     if (run.result != RESULT_OK) {
                       EXPECT_EQ(run.result, RESULT_FAIL);
                       VK_WRITEPROC w = nullptr;
                       V_FilterIO(nullptr, nullptr, &w, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
                       EXPECT_EQ(w, V_OsWrite);  // nothing installed
                       return;
                     }
                     EXPECT_TRUE(w1 == 5 || w1 == -1);
                     // A failed growth keeps the old buffer, which takes what fits.
                     EXPECT_TRUE(w2 == 70000 || w2 == -1 || (w2 >= 0 && static_cast<uint32_t>(w2) == 32768u - 5)) << w2;
                     void* buffer = nullptr;
                     uint32_t length = 0;
                     EXPECT_EQ(V_StopRedirectToBuffer(ctx, &buffer, &length), RESULT_OK);
                     if (buffer) EXPECT_GE(vk::plat::global_size(vk::plat::global_handle(buffer)), length);
                     V_OsFree(buffer);
                   });
}

}  // namespace

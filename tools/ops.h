// ops.h - the program's operations on a bitmap, and the progress/cancel plumbing.
#pragma once

#include <csignal>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bitmap.h"

namespace vkimg {

// ---- errors and exit codes ----

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitCancelled = 130;  // 128 + SIGINT, as shells report it

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct Cancelled : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ---- progress and Ctrl-C ----

// Installs the SIGINT handler and the library status callback.  The handler
// only sets a flag; the callback then answers 0, which stops the running
// operation, and the program reports the cancellation.  A second Ctrl-C
// ends the program at once, removing a half-written output.
void install_interrupt_handling(bool show_progress);
bool interrupted();
// Names the operation the progress bar describes; an empty label ends it.
void progress_begin(const std::string& label);
void progress_end();
// For loops the program runs itself: advances the bar and throws Cancelled
// after Ctrl-C.
void progress_step(int64_t done, int64_t total);

// ---- settings of one run ----

enum class PaletteMode { best, optimised, fixed, cube, user };

struct Settings {
  int memory_type = TYPE_CONVENTIONAL;
  // Error diffusion by default: ordered dithering leaves a visible grid on
  // photographs, which is what people mostly reduce.
  int dither = DITHER_FLOYD_STEINBERG;
  PaletteMode palette = PaletteMode::best;
  bool palette_given = false;  // --palette named: --reduce 1 then keeps it
  std::string palette_file;
  std::vector<RGBQUAD> palette_entries;  // loaded from palette_file
  int colors = 0;                        // 0: 2^bits
  std::string format;                    // --format: output type, else by extension
  EncodeOptions encode;                  // --quality, --compression
};

// One operation of a pipeline: the option as typed and its argument.
struct Step {
  std::string option;  // "--gray"
  std::string arg;     // "8"; empty for options without argument
  std::string text() const { return arg.empty() ? option : option + " " + arg; }
};

// What a pipeline works on.
struct Context {
  Bitmap bitmap;
  std::string name;  // the input file, for messages
  Settings settings;
  std::ostream* out;  // where --info, --get-pixel and --count-colors print
};

// ---- the operation table ----

struct OpInfo {
  const char* option;
  const char* arg;  // null: takes no argument
  const char* help;
  void (*run)(Context&, const std::string& arg);
};

const std::vector<OpInfo>& operations();
// Accepts the other spelling too (--grey, --colours, --optimized-palette).
const OpInfo* find_operation(const std::string& option);
// The spelling the tables use for an option or word ("grey" -> "gray").
std::string canonical_spelling(const std::string& word);

// What --reduce BITS[:gray] asks of the library, from its argument and the settings.
struct ReduceRequest {
  int bits = 0;
  uint32_t flags = 0;
  std::vector<RGBQUAD> palette;  // empty: the library picks
  int32_t colors = 0;
  // Black and white by error diffusion: the picture's gray levels are
  // dithered, as the usual tools do, rather than each colour channel on its
  // own (the other methods already decide each pixel by its gray level).
  bool black_and_white = false;
};
ReduceRequest parse_reduce(const std::string& arg, const Settings& s);

// The step as a RowStage when it can run while the file is read: --reduce
// to a palette that does not depend on the picture (black and white, the
// fixed palettes, the colour cube, gray levels, a palette file), with the
// library's own dithering, row by row, exactly as on a whole bitmap; and
// --gray 8 of 24-bit colour.  Null for any other step.
std::unique_ptr<RowStage> streaming_stage(const Step& step, const Settings& s);

// --reduce ARG as the pipeline's last step, its rows handed by colour
// resolution straight to the output as they are made, with no destination
// bitmap.  False (nothing done) when the request or the bitmap does not
// allow it: more than 8 bits, or rows not stored top row first.
bool reduce_to_file(Context& ctx, const std::string& arg, FileSink& sink);

// Refuses memory types the library cannot give, with the reason.
void check_memory_type(long type, const std::string& what);

// Runs one step; throws UsageError, LibraryError, IoError or Cancelled.
void run_step(Context& ctx, const Step& step);

// Text helpers shared with the program.
std::string describe_bitmap(const BitmapHandle& bm, const std::string& name, bool count_colours);
std::string storage_report(BitmapHandle& bm);
std::string format_colour(uint32_t colour);
long parse_long(const std::string& text, const std::string& what, long lo, long hi);
int parse_dither(const std::string& text);
const char* dither_name(int method);
void load_palette_file(Settings& s);
// Raises LibraryError (or Cancelled after Ctrl-C) unless r is RESULT_OK.
void check_result(int32_t r, const std::string& what);

}  // namespace vkimg

// vkimg.cpp - command-line front end of the imaging library.
//
//   vkimg [SETTINGS] INPUT [OPERATIONS...] [-o] OUTPUT
//   vkimg [--demo] [DIR]             the built-in picture, every operation, into DIR (out/)
//   vkimg info FILE...               what the library knows about each file
//   vkimg storage WxHxBPP [--type N] which storage a bitmap of that size gets
//   vkimg --list A B ... --reduce BITS -o DIR   one shared palette for several images
//
// Operations run in the order given.  File types follow the extension.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>

#include "demo_image.h"
#include "ops.h"
#include "result_names.h"

namespace vkimg {
namespace {

namespace fs = std::filesystem;

enum class Mode { pipeline, demo, list, storage, info_files };

struct Command {
  Mode mode = Mode::pipeline;
  Settings settings;
  std::vector<Step> steps;
  std::vector<std::string> positional;
  std::string output;
  bool demo_flag = false;
  int demo_width = kDemoWidth, demo_height = kDemoHeight;
  int storage_type = 0;  // 0: --memory-type
  std::string thresholds;
  std::string temp_dir;
  int progress = -1;  // -1: when standard error is a terminal
  bool quiet = false;
};

// Settings and modes, as opposed to the pipeline operations of ops.cpp.
struct OptionInfo {
  const char* option;
  const char* arg;
  const char* help;
};
constexpr OptionInfo kSettings[] = {
    {"-o", "OUTPUT", "output file (or directory for --demo and --list)"},
    {"--dither", "METHOD", "dithering of --reduce: fs (Floyd-Steinberg, the default), none, stucki, burkes, sierra,\n"
     "stevenson-arce, jarvis, ordered, clustered (or 0-8)"},
    {"--palette", "P", "palette of --reduce: best (default: lowest colour error; --reduce 1: black and white),\n"
     "optimised (the exact optimiser), fixed, cube, or a palette image FILE"},
    {"--colors", "N", "(or --colours) number of palette colours --reduce may use (default 2^BITS)"},
    {"--memory-type", "N", "memory type of new bitmaps: 1 memory, 4 tiled, 8 no tiles, 128 disk, 256 no disk"},
    {"--thresholds", "R,T,S,M,P", "memory reserve, tiled threshold, tile size, memory tiles, mapped tiles (blank = keep)"},
    {"--temp-dir", "DIR", "where disk storage puts its temp files"},
    {"--format", "TYPE", "type of the output (png, jpg, tif, bmp, pbm, pgm, ppm, pnm); needed for - (standard output)"},
    {"--quality", "N", "JPEG quality, 1-100 (default 90)"},
    {"--compression", "C", "TIFF compression: none, packbits, lzw, deflate, g3, g4\n"
     "(default: g4 for black and white, else lzw)"},
    {"--demo", "[DIR]", "run every operation on the built-in picture, outputs into DIR (default out/)"},
    {"--demo-size", "WxH", "size of the built-in picture (default 2048x1536)"},
    {"--list", nullptr, "treat every input as one list: --reduce them with one shared palette into -o DIR"},
    {"--type", "N", "memory type for 'storage' (default: --memory-type)"},
    {"--progress", nullptr, "always draw the progress bar (default: only on a terminal)"},
    {"--no-progress", nullptr, "never draw the progress bar"},
    {"-q", nullptr, "no notes on standard error"},
    {"--version", nullptr, "print the library's version record"},
    {"--help", nullptr, "this text"},
};

bool is_setting(const std::string& o) {
  for (const auto& s : kSettings)
    if (o == s.option) return true;
  return o == "--quiet" || o == "-h" || o == "-V";
}

bool setting_takes_arg(const std::string& o) {
  for (const auto& s : kSettings)
    if (o == s.option) return s.arg && s.arg[0] != '[';
  return false;
}

// One table row per option: the columns are as wide as the widest option
// and argument, and a help text's further lines start under its first.
struct HelpRow {
  std::string option, arg, help;
};

void print_rows(std::ostream& out, const std::vector<HelpRow>& rows, size_t opt_width, size_t arg_width) {
  for (const HelpRow& r : rows) {
    std::string line = "  " + r.option + std::string(opt_width - r.option.size() + 1, ' ') + r.arg +
                       std::string(arg_width - r.arg.size() + 1, ' ');
    const std::string indent(line.size(), ' ');
    size_t start = 0;
    for (;;) {
      const size_t nl = r.help.find('\n', start);
      out << (start ? indent : line) << r.help.substr(start, nl - start) << "\n";
      if (nl == std::string::npos) break;
      start = nl + 1;
    }
  }
}

void print_help(std::ostream& out) {
  out << "usage: vkimg [SETTINGS] INPUT [OPERATIONS...] [-o] OUTPUT\n"
         "       vkimg [--demo] [DIR]\n"
         "       vkimg info FILE...\n"
         "       vkimg storage WIDTHxHEIGHTxBPP [--type N] [--thresholds ...]\n"
         "       vkimg --list A B ... --reduce BITS [-o DIR | -o FILE.tif]\n"
         "\nFiles: .png, .jpg, .tif, .bmp, .pbm, .pgm, .ppm, .pnm (binary): read by their content,\n"
         "written by the output's extension (or --format).  - is standard input or output.\n"
         "A multi-page TIFF is read as a --list; --list -o FILE.tif writes one page per image.\n"
         "Both spellings are taken: gray/grey, colors/colours, optimised/optimized.\n";
  std::vector<HelpRow> ops, settings;
  for (const OpInfo& op : operations()) ops.push_back({op.option, op.arg ? op.arg : "", op.help});
  for (const auto& st : kSettings) settings.push_back({st.option, st.arg ? st.arg : "", st.help});
  size_t opt_width = 0, arg_width = 0;
  for (const auto* rows : {&ops, &settings})
    for (const HelpRow& r : *rows) opt_width = std::max(opt_width, r.option.size()), arg_width = std::max(arg_width, r.arg.size());
  out << "\nOperations (run in the order given):\n";
  print_rows(out, ops, opt_width, arg_width);
  out << "\nSettings:\n";
  print_rows(out, settings, opt_width, arg_width);
  out << "\nExit status: 0 success, 1 failure, 2 usage error, 130 cancelled (Ctrl-C).\n";
}

void print_version(std::ostream& out) {
  VersionInfo v{};
  check_result(V_VersionInfo(&v), "V_VersionInfo");
  out << "vkimg, library " << v.MajorVersion << "." << v.MinorVersion << " level " << v.Level << ": "
      << std::string(v.Banner, strnlen(v.Banner, sizeof v.Banner)) << " (built "
      << std::string(v.BuildDate, strnlen(v.BuildDate, sizeof v.BuildDate)) << " "
      << std::string(v.BuildTime, strnlen(v.BuildTime, sizeof v.BuildTime)) << ")\n";
}

// ---- argument parsing ----

Command parse(int argc, char** argv, bool& help, bool& version) {
  Command cmd;
  std::vector<std::string> args(argv + 1, argv + argc);
  size_t i = 0;
  if (!args.empty()) {
    if (args[0] == "info") cmd.mode = Mode::info_files, ++i;
    else if (args[0] == "storage") cmd.mode = Mode::storage, ++i;
    else if (args[0] == "demo") cmd.demo_flag = true, ++i;
    else if (args[0] == "list") cmd.mode = Mode::list, ++i;
    else if (args[0] == "help") help = true, ++i;
  }
  for (; i < args.size(); ++i) {
    std::string opt = args[i], value;
    bool has_value = false;
    if (opt.size() > 2 && opt[0] == '-' && opt[1] == '-') {
      const size_t eq = opt.find('=');
      if (eq != std::string::npos) {
        value = opt.substr(eq + 1);
        opt = opt.substr(0, eq);
        has_value = true;
      }
      opt = canonical_spelling(opt);
    } else if (opt.size() < 2 || opt[0] != '-') {
      cmd.positional.push_back(opt);
      continue;
    }
    const OpInfo* op = find_operation(opt);
    const bool takes = op ? op->arg != nullptr : setting_takes_arg(opt);
    if (!op && !is_setting(opt)) throw UsageError("unknown option " + opt + " (see --help)");
    if (takes && !has_value) {
      if (i + 1 >= args.size()) throw UsageError(opt + " needs a value");
      value = args[++i];
    } else if (!takes && has_value && opt != "--demo") {
      throw UsageError(opt + " takes no value");
    }
    if (op) {
      cmd.steps.push_back(Step{opt, value});
      continue;
    }
    Settings& s = cmd.settings;
    if (opt == "-o") cmd.output = value;
    else if (opt == "--dither") s.dither = parse_dither(value);
    else if (opt == "--palette") {
      s.palette_given = true;
      if (value == "best") s.palette = PaletteMode::best;
      else if (canonical_spelling(value) == "optimised") s.palette = PaletteMode::optimised;
      else if (value == "fixed") s.palette = PaletteMode::fixed;
      else if (value == "cube") s.palette = PaletteMode::cube;
      else s.palette = PaletteMode::user, s.palette_file = value;
    } else if (opt == "--colors") s.colors = static_cast<int>(parse_long(value, opt, 1, 256));
    else if (opt == "--memory-type" || opt == "--type") {
      const long type = parse_long(value, opt, 1, 2048);
      check_memory_type(type, opt + " " + value);
      (opt == "--type" ? cmd.storage_type : s.memory_type) = static_cast<int>(type);
    }
    else if (opt == "--thresholds") cmd.thresholds = value;
    else if (opt == "--format") {
      format_for_path("." + value);  // a type it does not know is refused now
      s.format = value;
    } else if (opt == "--quality") s.encode.quality = static_cast<int>(parse_long(value, opt, 1, 100));
    else if (opt == "--compression") {
      static constexpr const char* kNames[] = {"auto", "none", "packbits", "lzw", "deflate", "g3", "g4"};
      const auto* at = std::find_if(std::begin(kNames), std::end(kNames), [&](const char* n) { return value == n; });
      if (at == std::end(kNames)) throw UsageError("--compression: none, packbits, lzw, deflate, g3 or g4");
      s.encode.tiff = static_cast<TiffCompression>(at - std::begin(kNames));
    }
    else if (opt == "--temp-dir") cmd.temp_dir = value;
    else if (opt == "--demo") {
      cmd.demo_flag = true;
      if (has_value) cmd.output = value;
    } else if (opt == "--demo-size") {
      const size_t x = value.find('x');
      if (x == std::string::npos) throw UsageError("--demo-size takes WIDTHxHEIGHT");
      cmd.demo_width = static_cast<int>(parse_long(value.substr(0, x), opt, 8, 16384));
      cmd.demo_height = static_cast<int>(parse_long(value.substr(x + 1), opt, 8, 16384));
    } else if (opt == "--list") cmd.mode = Mode::list;
    else if (opt == "--progress") cmd.progress = 1;
    else if (opt == "--no-progress") cmd.progress = 0;
    else if (opt == "-q" || opt == "--quiet") cmd.quiet = true;
    else if (opt == "--help" || opt == "-h") help = true;
    else if (opt == "--version" || opt == "-V") version = true;
  }
  return cmd;
}

void apply_global_settings(Command& cmd) {
  if (!cmd.thresholds.empty()) {
    int32_t v[5] = {0, 0, 0, 0, 0};
    uint32_t which = 0;
    std::stringstream in(cmd.thresholds);
    std::string field;
    for (int k = 0; k < 5 && std::getline(in, field, ','); ++k) {
      if (field.empty()) continue;
      v[k] = static_cast<int32_t>(parse_long(field, "--thresholds", INT32_MIN, INT32_MAX));
      which |= 1u << k;
    }
    check_result(V_SetMemoryThresholds(v[0], v[1], v[2], v[3], v[4], which), "--thresholds " + cmd.thresholds);
  }
  if (!cmd.temp_dir.empty()) {
    // The library only says the path is refused; the folder is what is wrong.
    std::error_code ec;
    if (!fs::is_directory(cmd.temp_dir, ec))
      throw IoError(cmd.temp_dir + ": " + (fs::exists(cmd.temp_dir, ec) ? "not a directory" : "no such directory") +
                    " (--temp-dir)");
    check_result(V_SetTempDirectory(cmd.temp_dir.c_str()), "--temp-dir " + cmd.temp_dir);
  }
  if (cmd.settings.palette == PaletteMode::user) load_palette_file(cmd.settings);
}

void print_notes(const std::vector<std::string>& notes, bool quiet) {
  if (quiet) return;
  for (const std::string& n : notes) std::cerr << "vkimg: note: " << n << "\n";
}

// The format of an output: --format, else the name's extension.
Format output_format(const Settings& s, const std::string& path) {
  if (!s.format.empty()) return format_for_path("." + s.format);
  if (path == "-") throw UsageError("standard output needs --format (png, jpg, tif, bmp, ppm, ...)");
  return format_for_path(path);
}

void save(BitmapHandle& bm, const std::string& path, const Settings& s, bool quiet) {
  std::vector<std::string> notes;
  save_bitmap(bm, path, output_format(s, path), s.encode, &notes);
  print_notes(notes, quiet);
}

// Wraps a failure message with the file it concerns.
template <class E>
[[noreturn]] void rethrow_for(const std::string& name, const E& e) {
  throw E(name + ": " + e.what());
}

// ---- modes ----

int run_pipeline(Command& cmd) {
  if (cmd.positional.size() > 2) throw UsageError("too many file names (input and output only; see --help)");
  if (cmd.positional.size() == 2) {
    if (!cmd.output.empty()) throw UsageError("two outputs named: " + cmd.positional[1] + " and -o " + cmd.output);
    cmd.output = cmd.positional[1];
  }
  const std::string input = cmd.positional.at(0);
  if (cmd.output.empty()) {
    for (const Step& s : cmd.steps)
      if (s.option != "--info" && s.option != "--get-pixel" && s.option != "--count-colors" &&
          s.option != "--optimised-palette" &&
          s.option != "--storage" && s.option != "--compress" && s.option != "--decompress")
        throw UsageError(s.option + " changes the image, but no output file is named");
    if (cmd.steps.empty()) cmd.steps.push_back(Step{"--info", ""});
  } else {
    output_format(cmd.settings, cmd.output);  // refuse an unknown type before any work
  }
  // One --reduce to a palette chosen in advance runs as the file is read,
  // straight into the output, with no picture-sized memory.
  // Both need an output written from rows (not BMP).
  const bool row_output = !cmd.output.empty() && output_format(cmd.settings, cmd.output) != Format::bmp;
  std::unique_ptr<RowStage> stage;
  if (cmd.steps.size() == 1 && row_output && cmd.settings.memory_type == TYPE_CONVENTIONAL)
    stage = streaming_stage(cmd.steps[0], cmd.settings);
  Context ctx{Bitmap{}, input, cmd.settings, &std::cout};
  std::vector<std::string> notes;
  try {
    if (stage) {
      ctx.bitmap = load_streaming(input, cmd.settings.memory_type, *stage, cmd.output,
                                  output_format(cmd.settings, cmd.output), cmd.settings.encode, &notes);
      print_notes(notes, cmd.quiet);
      if (!ctx.bitmap.allocated()) return kExitOk;
    } else {
      ctx.bitmap = load_bitmap(input, cmd.settings.memory_type);
    }
    // A --reduce at the end hands its rows straight to the output (to a
    // palette of up to 8 bits): the reduced picture is never whole.
    const bool last_reduce = row_output && !cmd.steps.empty() && cmd.steps.back().option == "--reduce";
    for (size_t k = 0; k + (last_reduce ? 1 : 0) < cmd.steps.size(); ++k) run_step(ctx, cmd.steps[k]);
    if (last_reduce) {
      const Step& s = cmd.steps.back();
      FileSink sink(cmd.output, output_format(cmd.settings, cmd.output), cmd.settings.encode, &notes);
      progress_begin(s.text());
      const bool done = reduce_to_file(ctx, s.arg, sink);
      progress_end();
      if (interrupted()) throw Cancelled(s.text() + " cancelled");
      if (done) {
        sink.commit();
        print_notes(notes, cmd.quiet);
        return kExitOk;
      }
      run_step(ctx, s);
    }
  } catch (const LibraryError& e) {
    throw LibraryError(input + ": " + e.what(), e.code);
  } catch (const UsageError& e) {
    rethrow_for(input, e);
  } catch (const Cancelled& e) {
    rethrow_for(input, e);
  }
  if (interrupted()) throw Cancelled(input + ": cancelled");
  if (!cmd.output.empty()) save(*ctx.bitmap.get(), cmd.output, cmd.settings, cmd.quiet);
  return kExitOk;
}

int run_info_files(Command& cmd) {
  if (cmd.positional.empty()) throw UsageError("info needs at least one file");
  int status = kExitOk;
  for (const std::string& f : cmd.positional) {
    try {
      Context ctx{Bitmap{}, f, cmd.settings, &std::cout};
      ctx.bitmap = load_bitmap(f, cmd.settings.memory_type);
      run_step(ctx, Step{"--info", ""});
    } catch (const IoError& e) {
      std::cerr << "vkimg: " << e.what() << "\n";
      status = kExitFailure;
    } catch (const LibraryError& e) {
      std::cerr << "vkimg: " << f << ": " << e.what() << "\n";
      status = kExitFailure;
    }
  }
  return status;
}

int run_storage(Command& cmd) {
  if (cmd.positional.size() != 1) throw UsageError("storage takes one WIDTHxHEIGHTxBPP");
  const std::string& size_text = cmd.positional[0];
  const size_t x1 = size_text.find('x'), x2 = size_text.find('x', x1 == std::string::npos ? 0 : x1 + 1);
  if (x1 == std::string::npos || x2 == std::string::npos) throw UsageError("storage takes WIDTHxHEIGHTxBPP, e.g. 4000x3000x24");
  const long w = parse_long(size_text.substr(0, x1), "width", 1, INT32_MAX);
  const long h = parse_long(size_text.substr(x1 + 1, x2 - x1 - 1), "height", 1, INT32_MAX);
  const long bpp = parse_long(size_text.substr(x2 + 1), "bits per pixel", 1, 64);
  const uint64_t size = Image::stride_for(static_cast<int>(std::min<long>(w, INT32_MAX)), static_cast<int>(bpp)) *
                        static_cast<uint64_t>(h);
  if (size > 0xFFFFFFFFull)
    throw UsageError("storage: " + size_text + " needs " + std::to_string(size) + " bytes, more than a bitmap holds (4 GiB)");
  const int type = cmd.storage_type ? cmd.storage_type : cmd.settings.memory_type;
  Bitmap bm;
  const int32_t r = V_CreateBitmap(bm.get(), type, static_cast<int32_t>(w), static_cast<int32_t>(h),
                                   static_cast<int32_t>(bpp), bpp > 8 ? ORDER_BGR : ORDER_RGB, nullptr, 0, nullptr, 0);
  if (bm.allocated()) bm.adopt();
  check_result(r, "storage " + size_text + " with memory type " + std::to_string(type));
  std::cout << size_text << " asked with memory type " << type << ":\n" << storage_report(*bm.get());
  int32_t reserve = 0, tiled = 0, tile = 0, mem = 0, mapped = 0;
  V_GetMemoryThresholds(&reserve, &tiled, &tile, &mem, &mapped);
  std::cout << "  thresholds: reserve " << reserve << ", tiled above " << tiled << ", tile size " << tile
            << ", memory tiles " << mem << ", mapped tiles " << mapped << "\n";
  return kExitOk;
}

// Frees a bitmap list on every way out.
struct ListGuard {
  BitmapList list = nullptr;
  ~ListGuard() {
    if (list) V_DestroyBitmapList(list);
  }
};

// Resolves every input with one shared palette; writes DIR/<input name>.
// Resolves every bitmap with one shared palette, then writes each to its
// output, or all as the pages of one file when one output is named.
void reduce_list(std::vector<Bitmap> items, const std::string& reduce_arg, const Settings& settings,
                 const std::vector<std::string>& outputs, bool quiet) {
  const ReduceRequest req = parse_reduce(reduce_arg, settings);
  ListGuard guard;
  check_result(V_CreateBitmapList(&guard.list), "creating the bitmap list");
  for (Bitmap& bm : items) {
    if (settings.dither >= 0) bm->DitheringMethod = settings.dither;
    check_result(V_InsertBitmapListItem(guard.list, UINT32_MAX, bm.get()), "adding to the list");
    bm.release();  // the list owns the storage now
  }
  std::vector<RGBQUAD> pal = req.palette;  // the list call may fill free entries
  progress_begin("--list --reduce " + reduce_arg);
  check_result(V_ColorResBitmapList(guard.list, req.bits, req.flags, pal.empty() ? nullptr : pal.data(), nullptr,
                                    req.colors),
               "--list --reduce " + reduce_arg);
  progress_end();
  std::vector<BitmapHandle> done(items.size());
  for (uint32_t k = 0; k < items.size(); ++k)
    check_result(V_GetBitmapListItem(guard.list, k, &done[k]), "reading list item " + std::to_string(k));
  if (outputs.size() == 1 && done.size() > 1) {
    std::vector<BitmapHandle*> pages;
    for (BitmapHandle& h : done) pages.push_back(&h);
    std::vector<std::string> notes;
    save_bitmaps(pages, outputs[0], output_format(settings, outputs[0]), settings.encode, &notes);
    print_notes(notes, quiet);
    return;
  }
  for (size_t k = 0; k < done.size(); ++k) save(done[k], outputs[k], settings, quiet);
}

// DIR/<name> for each name.  Same names (inputs from different folders)
// are numbered, a.png, a-2.png, ...; an output that would replace one of
// the inputs is refused.
std::vector<std::string> list_outputs(const std::vector<std::string>& names, const fs::path& dir,
                                      const std::vector<std::string>& inputs) {
  std::vector<std::string> outputs;
  std::vector<fs::path> taken;
  for (const std::string& f : names) {
    const fs::path name = fs::path(f).filename();
    fs::path out = dir / name;
    for (int k = 2; std::find(taken.begin(), taken.end(), out) != taken.end(); ++k)
      out = dir / (name.stem().string() + "-" + std::to_string(k) + name.extension().string());
    taken.push_back(out);
    outputs.push_back(out.string());
  }
  std::error_code ec;
  for (const std::string& o : outputs)
    for (const std::string& in : inputs)
      if (fs::weakly_canonical(o, ec) == fs::weakly_canonical(in, ec))
        throw UsageError("--list: " + o + " would overwrite the input " + in + "; name another -o");
  return outputs;
}

bool is_tiff_name(const fs::path& p) {
  std::string ext = p.extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".tif" || ext == ".tiff";
}

// The pages of every input (a TIFF may hold several) become the list's
// items; -o names a folder for one file per item, or one .tif for all.
int run_list(Command& cmd) {
  if (cmd.positional.empty()) throw UsageError("--list needs input files");
  if (cmd.steps.size() != 1 || cmd.steps[0].option != "--reduce")
    throw UsageError("--list takes exactly one operation, --reduce BITS");
  parse_reduce(cmd.steps[0].arg, cmd.settings);  // a bad argument is refused before any file is touched
  const fs::path target = cmd.output.empty() ? fs::path("out") : fs::path(cmd.output);
  const bool one_file = is_tiff_name(target) && !fs::is_directory(target);
  // Refused before anything is read: an output over an input.
  list_outputs(one_file ? std::vector<std::string>{target.filename().string()} : cmd.positional,
               one_file ? target.parent_path() : target, cmd.positional);
  std::vector<Bitmap> items;
  std::vector<std::string> names;
  for (const std::string& f : cmd.positional) {
    std::vector<Bitmap> pages;
    try {
      pages = load_pages(f, cmd.settings.memory_type);
    } catch (const LibraryError& e) {
      throw LibraryError(f + ": " + e.what(), e.code);
    }
    const fs::path name = fs::path(f).filename();
    for (size_t k = 0; k < pages.size(); ++k) {
      items.push_back(std::move(pages[k]));
      names.push_back(k == 0 ? name.string()
                             : name.stem().string() + "-page" + std::to_string(k + 1) + name.extension().string());
    }
  }
  const std::vector<std::string> outputs =
      one_file ? std::vector<std::string>{target.string()} : list_outputs(names, target, cmd.positional);
  if (!one_file) fs::create_directories(target);
  reduce_list(std::move(items), cmd.steps[0].arg, cmd.settings, outputs, cmd.quiet);
  for (const std::string& o : outputs) std::cout << o << "\n";
  return kExitOk;
}

// ---- the demo ----

struct DemoStep {
  std::string file;
  std::vector<Step> steps;
  int dither = DITHER_FLOYD_STEINBERG;
  PaletteMode palette = PaletteMode::best;
  bool page = false;  // works on the document page instead of the picture
};

std::vector<DemoStep> demo_steps() {
  std::vector<DemoStep> d;
  d.push_back({"gray-8.png", {{"--gray", "8"}}});
  d.push_back({"gray-16.png", {{"--gray", "16"}}});
  d.push_back({"convert-8-gray.png", {{"--convert", "8:gray"}}});
  d.push_back({"convert-8-fixed.png", {{"--convert", "8"}}});
  d.push_back({"convert-4-fixed.bmp", {{"--convert", "4"}}});
  d.push_back({"convert-16-555.bmp", {{"--convert", "16"}}});
  d.push_back({"convert-48.png", {{"--convert", "48"}}});
  d.push_back({"reduce-8-best.png", {{"--reduce", "8"}}, DITHER_FLOYD_STEINBERG});
  d.push_back({"reduce-8-optimised.png", {{"--reduce", "8"}}, DITHER_FLOYD_STEINBERG, PaletteMode::optimised});
  d.push_back({"reduce-8-fixed.png", {{"--reduce", "8"}}, DITHER_FLOYD_STEINBERG, PaletteMode::fixed});
  d.push_back({"reduce-8-cube.png", {{"--reduce", "8"}}, DITHER_ORDERED, PaletteMode::cube});
  d.push_back({"reduce-4-best.png", {{"--reduce", "4"}}, DITHER_FLOYD_STEINBERG});
  d.push_back({"reduce-4-optimised.png", {{"--reduce", "4"}}, DITHER_FLOYD_STEINBERG, PaletteMode::optimised});
  d.push_back({"reduce-4-fixed.png", {{"--reduce", "4"}}, DITHER_FLOYD_STEINBERG, PaletteMode::fixed});
  for (int m = DITHER_NONE; m <= DITHER_CLUSTERED; ++m)
    d.push_back({std::string("reduce-1-") + dither_name(m) + ".png", {{"--reduce", "1"}}, m, PaletteMode::fixed});
  // Run-length storage pays on pages of text, not on dithered photographs.
  d.push_back({"compressed-1.pbm", {{"--info", ""}, {"--compress", ""}, {"--info", ""}}, DITHER_FLOYD_STEINBERG,
               PaletteMode::optimised, true});
  d.push_back({"storage-disk.png", {{"--storage", "128"}, {"--info", ""}, {"--storage", "4"}, {"--info", ""}}});
  d.push_back({"flip.png", {{"--flip", ""}}});
  d.push_back({"mirror.png", {{"--mirror", ""}}});
  for (const char* deg : {"90", "180", "270"}) d.push_back({std::string("rotate-") + deg + ".png", {{"--rotate", deg}}});
  // The general turn in each quality, grown to hold the corners, white corners.
  for (const char* q : {"nearest", "linear", "spline"})
    d.push_back({std::string("rotate-30-") + q + ".png",
                 {{"--rotate", std::string("30:resize") + (q[0] == 'n' ? "" : std::string(":") + q) + ":#ffffff"}}});
  // Rows slid by tan(30 degrees) pixels more per row, white triangles.
  d.push_back({"shear-30.png", {{"--shear", "30:#ffffff"}}});
  d.push_back({"fill.png", {{"--fill", "#3080c0"}}});
  d.push_back({"crop.png", {{"--crop", "-8,4,40,24"}}});  // a black strip on the left
  d.push_back({"trim.png", {{"--trim", "8,4,1000,1000"}}});
  // Stored transposed, saved as seen: the same picture, its record in the report.
  d.push_back({"view-perspective-5.png", {{"--view-perspective", "5"}, {"--info", ""}}});
  // Resizing: a corner blown up four times shows the difference between
  // picking pixels and the spline; averaging shrinks the whole picture, and
  // the density count keeps thin strokes of the page.
  d.push_back({"resize-nearest.png", {{"--trim", "0,0,160,120"}, {"--resize", "400%x0:nearest"}}});
  d.push_back({"resize-smooth.png", {{"--trim", "0,0,160,120"}, {"--resize", "400%x0:smooth"}}});
  d.push_back({"resize-average.png", {{"--resize", "25%x0:average"}}});
  d.push_back({"resize-density.pbm", {{"--resize", "50%x0:density"}}, DITHER_FLOYD_STEINBERG, PaletteMode::best,
               true});
  d.push_back({"height-half.png", {{"--height", "half"}}});  // the number is filled in by run_demo
  d.push_back({"put-pixel.png", {}});                        // filled in by run_demo: a marked cross
  // The 8-bit gray picture as the alpha channel (a 32-bit PNG that fades
  // where the picture is dark), and that channel written out again.
  d.push_back({"alpha-in.png", {{"--alpha-in", "gray-8.png"}, {"--alpha-out", "alpha-out.png"}}});
  d.push_back({"bmp-32-alpha.bmp", {{"--alpha-in", "gray-8.png"}}});
  return d;
}

// A tinted copy of the picture, so that the list demo has different frames.
Image tinted(const Image& src, int dr, int dg, int db) {
  Image out = src;
  for (int y = 0; y < out.height; ++y) {
    uint8_t* p = out.row(y);
    for (int x = 0; x < out.width; ++x, p += 3) {
      p[0] = static_cast<uint8_t>(std::clamp(p[0] + db, 0, 255));
      p[1] = static_cast<uint8_t>(std::clamp(p[1] + dg, 0, 255));
      p[2] = static_cast<uint8_t>(std::clamp(p[2] + dr, 0, 255));
    }
  }
  return out;
}

int run_demo(Command& cmd) {
  if (!cmd.steps.empty()) throw UsageError("the demo runs its own operations; name an input file to run yours");
  if (cmd.positional.size() > 1) throw UsageError("the demo takes one output directory");
  const fs::path dir = !cmd.positional.empty() ? fs::path(cmd.positional[0])
                       : !cmd.output.empty()   ? fs::path(cmd.output)
                                               : fs::path("out");
  fs::create_directories(dir);

  progress_begin("making the default picture");
  const Image img = make_demo_image(cmd.demo_width, cmd.demo_height);
  progress_end();
  std::vector<std::string> notes;
  const std::string base = (dir / "default.png").string();
  write_image(base, img, &notes);
  std::cout << base << "\n";

  int status = kExitOk;
  std::ofstream text((dir / "report.txt").string());
  auto fail = [&](const std::string& what) {
    std::cerr << "vkimg: " << what << "\n";
    status = kExitFailure;
  };
  const Image page = make_demo_page(cmd.demo_width, cmd.demo_height);
  write_image((dir / "page.pbm").string(), page);
  std::cout << (dir / "page.pbm").string() << "\n";
  auto run = [&](const std::string& file, std::vector<Step> steps, Settings s, const Image& input) {
    const std::string path = (dir / file).string();
    try {
      Context ctx{to_bitmap(input, cmd.settings.memory_type), file, s, &text};
      text << "== " << file << ":";
      for (size_t k = 0; k < steps.size() && k < 4; ++k) text << " " << steps[k].text();
      if (steps.size() > 4) text << " ... (" << steps.size() << " operations)";
      for (const Step& st : steps)
        if (st.option == "--reduce") {
          static constexpr const char* kPalettes[] = {"best", "optimised", "fixed", "cube", "file"};
          text << " [palette " << kPalettes[static_cast<int>(s.palette)] << ", dither "
               << (s.dither >= 0 ? dither_name(s.dither) : "default") << "]";
          break;
        }
      text << "\n";
      for (const Step& st : steps) run_step(ctx, st);
      notes.clear();
      save(*ctx.bitmap.get(), path, s, true);
      std::cout << path << "\n";
    } catch (const Cancelled&) {
      throw;
    } catch (const std::exception& e) {
      fail(path + ": " + e.what());
    }
  };

  // What the library knows about the default picture, and a few pixels.
  try {
    Context ctx{to_bitmap(img, cmd.settings.memory_type), "default.png", cmd.settings, &text};
    run_step(ctx, Step{"--info", ""});
    run_step(ctx, Step{"--optimised-palette", "16"});
    for (const char* xy : {"0,0", "100,100", "1024,400"}) {
      const auto comma = std::string(xy).find(',');
      if (std::stol(std::string(xy).substr(0, comma)) < img.width &&
          std::stol(std::string(xy).substr(comma + 1)) < img.height)
        run_step(ctx, Step{"--get-pixel", xy});
    }
  } catch (const Cancelled&) {
    throw;
  } catch (const std::exception& e) {
    fail(std::string("default.png: ") + e.what());
  }

  for (DemoStep& d : demo_steps()) {
    if (interrupted()) throw Cancelled("demo cancelled");
    Settings s = cmd.settings;
    s.dither = d.dither;
    s.palette = d.palette;
    if (d.file == "height-half.png") d.steps[0].arg = std::to_string(std::max(1, img.height / 2));
    for (Step& st : d.steps)
      if (st.option == "--alpha-in" || st.option == "--alpha-out") st.arg = (dir / st.arg).string();
    if (d.file == "put-pixel.png") {
      const int cx = img.width / 2, cy = img.height / 2;
      for (int k = -8; k <= 8; ++k) {
        d.steps.push_back({"--put-pixel", std::to_string(cx + k) + "," + std::to_string(cy) + "=#ff0000"});
        d.steps.push_back({"--put-pixel", std::to_string(cx) + "," + std::to_string(cy + k) + "=#ff0000"});
      }
    }
    run(d.file, d.steps, s, d.page ? page : img);
  }

  // Three tinted frames with one shared palette.
  try {
    const Image frames[] = {img, tinted(img, 40, 0, -30), tinted(img, -30, 10, 40)};
    std::vector<std::string> outs;
    for (int k = 0; k < 3; ++k) outs.push_back((dir / ("list-" + std::to_string(k) + ".png")).string());
    Settings s = cmd.settings;
    s.dither = DITHER_FLOYD_STEINBERG;
    std::vector<Bitmap> items;
    for (const Image& f : frames) items.push_back(to_bitmap(f, cmd.settings.memory_type));
    reduce_list(std::move(items), "8", s, outs, true);
    for (const auto& o : outs) std::cout << o << "\n";
  } catch (const Cancelled&) {
    throw;
  } catch (const std::exception& e) {
    fail(std::string("list: ") + e.what());
  }
  text.close();
  std::cout << (dir / "report.txt").string() << "\n";
  return status;
}

int main_checked(int argc, char** argv) {
  bool help = false, version = false;
  Command cmd = parse(argc, argv, help, version);
  if (help) {
    print_help(std::cout);
    return kExitOk;
  }
  if (version) {
    print_version(std::cout);
    return kExitOk;
  }
  install_interrupt_handling(cmd.progress < 0 ? isatty(STDERR_FILENO) != 0 : cmd.progress != 0);
  apply_global_settings(cmd);
  switch (cmd.mode) {
    case Mode::info_files: return run_info_files(cmd);
    case Mode::storage: return run_storage(cmd);
    case Mode::list: return run_list(cmd);
    default: break;
  }
  // No input named: the demo.  A lone name that is a directory (or ends in
  // a slash, or has no image extension) is the demo's output folder.
  if (!cmd.demo_flag && cmd.positional.size() == 1 && cmd.steps.empty() && cmd.output.empty()) {
    const std::string& p = cmd.positional[0];
    bool image = true;
    try {
      format_for_path(p);
    } catch (const IoError&) {
      image = false;
    }
    if (!image || p.back() == '/' || fs::is_directory(p)) cmd.demo_flag = true;
  }
  if (cmd.demo_flag || cmd.positional.empty()) {
    if (!cmd.demo_flag && !cmd.steps.empty()) throw UsageError("no input file named (see --help)");
    return run_demo(cmd);
  }
  return run_pipeline(cmd);
}

}  // namespace
}  // namespace vkimg

int main(int argc, char** argv) {
  using namespace vkimg;
  try {
    return main_checked(argc, argv);
  } catch (const UsageError& e) {
    progress_end();
    std::cerr << "vkimg: " << e.what() << "\n";
    return kExitUsage;
  } catch (const Cancelled& e) {
    progress_end();
    std::cerr << "vkimg: " << e.what() << "\n";
    return kExitCancelled;
  } catch (const LibraryError& e) {
    progress_end();
    if (interrupted()) {
      std::cerr << "vkimg: cancelled: " << e.what() << "\n";
      return kExitCancelled;
    }
    std::cerr << "vkimg: " << e.what() << "\n";
    return kExitFailure;
  } catch (const IoError& e) {
    progress_end();
    if (interrupted()) {  // a read or write that Ctrl-C broke off
      std::cerr << "vkimg: cancelled: " << e.what() << "\n";
      return kExitCancelled;
    }
    std::cerr << "vkimg: " << e.what() << "\n";
    return kExitFailure;
  } catch (const fs::filesystem_error& e) {
    progress_end();
    std::cerr << "vkimg: " << e.what() << "\n";
    return kExitFailure;
  } catch (const std::bad_alloc&) {
    progress_end();
    std::cerr << "vkimg: out of memory\n";
    return kExitFailure;
  } catch (const std::exception& e) {
    progress_end();
    std::cerr << "vkimg: " << e.what() << "\n";
    return kExitFailure;
  }
}

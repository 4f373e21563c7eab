#!/usr/bin/env python3
"""Every export that can reach an allocation point has a fault sweep.

Reads the library's sources, builds a call graph by function name, and
finds the exports from which an allocation point (a function that calls
fault::hit, or constructs an allocating guard) is reachable.  Each must be
named by a VKT_SWEEPS(...) mark in tests/ or listed below with the reason it
needs none.  Names are matched without scope, so the graph over-approximates
(two functions of one name merge); that errs towards asking for a sweep.
Usage: sweep_coverage.py SOURCE_DIR
"""
import os
import re
import sys

LAYERS = ["platform", "core", "host", "color", "reduce", "geometry"]
# Constructing one of these allocates.
ALLOCATING_TYPES = {"Buffer", "OsBlock"}
# Reaching these is not a failure the caller sees: a thread whose settings
# record cannot be made uses the process-wide record.
BENIGN = {"settings"}
# Exports that reach an allocation point in the graph but need no sweep.
NO_SWEEP = {
    "V_Malloc": "an allocator itself: its failure is its null result (allocator tests)",
    "V_Calloc": "an allocator itself",
    "V_Realloc": "an allocator itself",
    "V_MallocDump": "an allocator itself",
    "V_CallocDump": "an allocator itself",
    "V_ReallocDump": "an allocator itself",
    "V_OsAlloc": "an allocator itself",
    "V_OsAllocInit": "an allocator itself",
    "V_OsReAlloc": "an allocator itself",
    "V_OsReAllocInit": "an allocator itself",
    "V_OsAllocDump": "an allocator itself",
    "V_OsAllocInitDump": "an allocator itself",
    "V_OsReAllocDump": "an allocator itself",
    "V_OsReAllocInitDump": "an allocator itself",
    "V_OsRead": "reads through an open handle; the graph merges it with the tile reader of the same name",
    "V_OsWrite": "writes through an open handle; the graph merges it with the tile writer of the same name",
    "V_RedirectedRead": "calls the thread's read callback; allocates only in a growing buffer's write",
    "V_RedirectedSeek": "calls the thread's seek callback",
    "V_RedirectedOpen": "calls the thread's open callback (V_OsOpen has its sweep)",
    "V_RedirectedClose": "calls the thread's close callback; a failed shrink keeps the block",
    "V_DestroyBitmapList": "frees; the graph merges a free path with the list's growth",
    "V_DeleteBitmapListItems": "a failed shrink keeps the larger array (list tests)",
    "V_InitBitmap": "allocates nothing; reaches the thread's settings only",
    "V_GetNearestPaletteIndex": "matches against the palette it is given; the graph merges a palette read with palette creation",
    "V_TranslateBitmapColor": "reads a palette entry; the graph merges a palette read with palette creation",
    "V_CopyPlaybackParms": "copies a palette; a failed copy is reported as its result (palette sweeps cover the copy)",
    "V_GetDisDispatch": "copies the table out; the graph merges its reader with the tile reader of the same name",
    "V_CreateSystemPalette": "the screen's palette, made once from a fixed table; covered by the palette handle sweep's path",
}


def strip(text):
    text = re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.S)
    text = re.sub(r'"(\\.|[^"\\])*"', '""', text)
    return re.sub(r"'(\\.|[^'\\])*'", "''", text)


def graph(root):
    bodies, exported = {}, set()
    for layer in LAYERS:
        for base, _, names in os.walk(os.path.join(root, layer)):
            for name in names:
                if not name.endswith((".cpp", ".h")):
                    continue
                toks = re.findall(r"[A-Za-z_]\w*|\S", strip(open(os.path.join(base, name), errors="replace").read()))
                depth, start, inside, fn = 0, 0, None, None
                for i, tk in enumerate(toks):
                    if tk == "{":
                        if inside is None:
                            j = i - 1
                            while j >= 0 and toks[j] in ("const", "noexcept", "override", "final", "mutable"):
                                j -= 1
                            if j >= 0 and toks[j] == ")":
                                d, k = 0, j
                                while k >= 0:
                                    d += toks[k] == ")"
                                    d -= toks[k] == "("
                                    if d == 0:
                                        break
                                    k -= 1
                                cand = toks[k - 1] if k > 0 else ""
                                if re.match(r"[A-Za-z_]\w*$", cand) and cand not in ("if", "for", "while", "switch", "catch", "return", "sizeof"):
                                    inside, fn, start = depth, cand, i
                                    if k > 1 and toks[k - 2] == "VK_CALL" and cand.startswith("V_"):
                                        exported.add(cand)
                        depth += 1
                    elif tk == "}":
                        depth -= 1
                        if inside is not None and depth == inside:
                            body = toks[start:i]
                            calls = {body[m] for m in range(len(body) - 1) if body[m + 1] == "(" and re.match(r"[A-Za-z_]\w*$", body[m])}
                            # A guard declared (Buffer<T> x, OsBlock x), not a field of that name.
                            calls |= {body[m] for m in range(1, len(body) - 1)
                                      if body[m] in ALLOCATING_TYPES and body[m - 1] not in (".", ">")
                                      and (body[m + 1] == "<" or re.match(r"[A-Za-z_]", body[m + 1]))}
                            bodies.setdefault(fn, set()).update(calls)
                            inside = None
    return bodies, exported


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..")
    bodies, exported = graph(root)
    roots = {n for n, calls in bodies.items() if "hit" in calls or calls & ALLOCATING_TYPES}

    def reaches(name):
        seen, todo = {name}, [name]
        while todo:
            x = todo.pop()
            if x in roots:
                return True
            for c in bodies.get(x, ()):
                if c in bodies and c not in seen and c not in BENIGN:
                    seen.add(c)
                    todo.append(c)
        return False

    swept = set()
    for base, _, names in os.walk(os.path.join(root, "tests")):
        for name in names:
            if name.endswith((".cpp", ".h")):
                for m in re.finditer(r"^VKT_SWEEPS\(([^)]*)\)", open(os.path.join(base, name)).read(), re.M):
                    swept |= {s.strip() for s in m.group(1).split(",") if s.strip()}

    needed = sorted(e for e in exported if reaches(e))
    missing = [e for e in needed if e not in swept and e not in NO_SWEEP]
    stale = sorted((swept | set(NO_SWEEP)) - exported)
    for e in missing:
        print(f"{e} reaches an allocation point and has no fault sweep (mark one with VKT_SWEEPS or say why in NO_SWEEP)")
    for e in stale:
        print(f"{e} is marked or listed but is no export")
    print(f"{len(needed)} exports reach an allocation point: {len(needed) - len(missing)} swept or explained, {len(missing)} missing")
    return 1 if missing or stale else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Reads every V_ declaration of the public header and writes, for Windows:

  exports.def   the module definition of VKKRN13N.dll.  For i686 each name
                carries its standard-call decoration (@ and the argument
                bytes): the linker (--kill-at) exports the plain name, and
                dlltool -k makes an import library whose _V_X@N symbols
                resolve the references a caller's compiler emits.
  link_all.c    a C99 program that takes the address of every declared
                function, so linking it against the import library proves
                that every declaration resolves.

Usage: exports_from_header.py HEADER OUT.def OUT.c (i686|x86_64)
"""
import re
import sys

# Argument bytes on i686 of each non-pointer parameter type the header uses.
# An unknown type stops the build rather than guess a wrong decoration.
I686_BYTES = {
    "int32_t": 4, "uint32_t": 4, "intptr_t": 4, "uintptr_t": 4, "size_t": 4,
    "VK_FILE": 4, "VK_COLORREF": 4, "VK_HANDLE": 4, "VK_HGLOBAL": 4, "VK_HPALETTE": 4,
    "VK_HRGN": 4, "BitmapList": 4, "StatusCallback": 4, "ColorResRowCallback": 4,
    "ColorResListRowCallback": 4, "VK_OPENPROC": 4, "VK_READPROC": 4, "VK_WRITEPROC": 4,
    "VK_SEEKPROC": 4, "VK_CLOSEPROC": 4, "int64_t": 8, "uint64_t": 8, "double": 8,
}


def split_params(text):
    parts, depth, cur = [], 0, ""
    for ch in text:
        depth += ch == "("
        depth -= ch == ")"
        if ch == "," and depth == 0:
            parts.append(cur)
            cur = ""
        else:
            cur += ch
    parts.append(cur)
    return [" ".join(p.split()) for p in parts if p.strip()]


def param_bytes(param, where):
    if "*" in param or "(" in param or "[" in param:
        return 4
    words = param.replace("const ", "").split()
    if words == ["void"]:
        return 0
    kind = words[0] if len(words) <= 2 else None
    if kind not in I686_BYTES:
        sys.exit(f"{where}: parameter '{param}' has no known size on i686")
    return I686_BYTES[kind]


def declarations(header):
    text = re.sub(r"/\*.*?\*/", " ", open(header).read(), flags=re.S)
    # Every function-pointer type the header defines is passed as a pointer.
    for m in re.finditer(r"typedef[^;{]*?\(\s*(?:VK_CALL\s*)?\*\s*(\w+)\s*\)", text):
        I686_BYTES.setdefault(m.group(1), 4)
    found = []
    for m in re.finditer(r"^\s*VK_API\s+([^;]*?)\bVK_CALL\s+(V_\w+)\s*\(([^;]*)\)\s*;", text, re.M | re.S):
        name, params = m.group(2), m.group(3)
        found.append((name, sum(param_bytes(p, name) for p in split_params(params))))
    if not found:
        sys.exit(f"{header}: no V_ declarations found")
    return found


def main():
    header, out_def, out_c, arch = sys.argv[1:5]
    decls = declarations(header)
    with open(out_def, "w") as f:
        f.write("LIBRARY VKKRN13N.dll\nEXPORTS\n")
        for name, size in decls:
            f.write(f"  {name}@{size}\n" if arch == "i686" else f"  {name}\n")
    with open(out_c, "w") as f:
        f.write("/* Generated: takes the address of every V_ function of vkkrn.h. */\n")
        f.write("#include <stdio.h>\n#include \"vkkrn.h\"\n\n")
        f.write("typedef void (*any_function)(void);\n")
        f.write("static const any_function every_export[] = {\n")
        for name, _ in decls:
            f.write(f"  (any_function){name},\n")
        f.write("};\n\n")
        f.write("int main(void) {\n")
        f.write("  /* Read through a volatile pointer, so no reference is optimised away. */\n")
        f.write("  const any_function* volatile table = every_export;\n")
        f.write("  const unsigned count = (unsigned)(sizeof every_export / sizeof every_export[0]);\n")
        f.write("  unsigned i, present = 0;\n")
        f.write("  for (i = 0; i < count; ++i) present += table[i] != 0;\n")
        f.write("  printf(\"%u of %u functions\\n\", present, count);\n")
        f.write("  return present == count ? 0 : 1;\n}\n")


if __name__ == "__main__":
    main()

// version.h - the numbers V_VersionInfo reports.  The build reads them from
// here too (the shared library's file version is MAJOR.MINOR.LEVEL and its
// soname MAJOR), so the record and the installed files cannot disagree.
#pragma once

#define VK_VERSION_MAJOR 13
#define VK_VERSION_MINOR 0
#define VK_VERSION_LEVEL 2

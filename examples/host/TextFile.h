// Reading and measuring one text file.
#pragma once

#include <vlmcore/vlmcore.h>

// What the index says of one file.
struct SFileReport {
    Velmor::CMutableString path;
    Velmor::CMutableString error; // empty when the file was indexed; else the reason why not
    char const* encoding = "";    // "UTF-8", "UTF-16LE", ...
    bool hasMark = false;         // the file starts with a byte-order mark
    Velmor::u64 bytes = 0;        // of the file, mark included
    Velmor::u64 lines = 0;        // line feeds
    Velmor::u64 codePoints = 0;   // mark excluded
    Velmor::u64 sizeAs[3] = {};   // bytes as UTF-8, UTF-16, UTF-32: without mark and terminator
    Velmor::u32 crc32 = 0;        // of the file's bytes, the standard value
    Velmor::u64 fnv64 = 0;        // FNV-1a of the file's bytes from the standard offset basis
};

// Measures `report.path`; a file that cannot be read or holds no text leaves the reason in `report.error`.
void MeasureFile(SFileReport& report);

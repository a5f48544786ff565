// A text file in memory: its encoding, its text, its measures.
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
    bool isXML = false;
    Velmor::u64 elements = 0;                                        // of an XML file
    Velmor::u64 attributes = 0;                                      // of an XML file
    Velmor::TVector<Velmor::Math::TTuple2<Velmor::u64>> placesFound; // of --find: line and column, both from 1
};

// One way to write text into a file.
struct SFileEncoding {
    char const* name;
    Velmor::EStringEncoding::Type type;
    Velmor::u64 unitSize; // bytes
    bool isBigEndian;
    Velmor::u64 markSize; // bytes
    Velmor::u8 mark[4];
};

// Length of the well-formed UTF-8 character at `text`, 0 when there is none. A zero byte is no text.
[[nodiscard]] Velmor::u64 MeasureUTF8Character(Velmor::u8 const* text, Velmor::u64 size);

// A whole file in memory, its text in the machine's byte order.
class CTextFile {
public:
    // Reads to the end and finds the encoding by the byte-order mark, UTF-8 without one. The checksums of `report` are
    // those of the bytes as they were read. Throws CFileException and CBadAllocation.
    CTextFile(Velmor::IFile& file, SFileReport& report);

    // Byte of the file at which it stops being text; the file's size when all of it is.
    [[nodiscard]] Velmor::u64 FindMalformed() const;

    // The text without its mark; a view.
    [[nodiscard]] Velmor::CString GetText() const;
    [[nodiscard]] SFileEncoding const& GetEncoding() const { return *m_encoding; }

    // Writes another text in this file's encoding, mark and byte order. Throws CFileException; a disk that takes only a
    // part counts as one that refuses.
    void WriteLike(Velmor::IFile& file, Velmor::CMutableString text) const;

private:
    [[nodiscard]] Velmor::u8* GetTextBytes() { return m_bytes.GetData() + m_encoding->markSize; }

    Velmor::TVector<Velmor::u8, 8> m_bytes; // the file and the widest terminator
    Velmor::u64 m_size = 0;                 // of the file
    SFileEncoding const* m_encoding = nullptr;
};

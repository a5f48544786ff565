// Arbitrary text in arbitrary pieces: the tokenizer, plain and fast, against the oracle. The first byte chooses the
// callbacks, the second how the text is cut, the third how much ordinary text stands around it.
#include "internal/xml_differential.h"

#include <Core_XMLTokenizer.h>

#include <vlmcore/memory.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

/// Holds on to the heap object, which the library never frees, so that leak checkers see it reachable.
void* g_heapObject = nullptr;

void* KeepingMalloc(u64 size)
{
    void* const block = std::malloc(size);
    g_heapObject = g_heapObject == nullptr ? block : g_heapObject;
    return block;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    Memory::Initialize(KeepingMalloc, nullptr, nullptr, 0, 0);
    if (size < 3)
        return 0;
    unsigned const callbacks = data[0] < 0x80 ? AllXMLCallbacks : data[0] & AllXMLCallbacks;
    std::string text(reinterpret_cast<char const*>(data + 3), size - 3);
    for (int i = 0; i < data[2] % 8; ++i) {
        text.insert(0, "<item key=\"value\" other='1 2'>some text</item>\n");
        text += "\n<item key=\"value\"/> text &amp; more <!-- a comment -->";
    }
    for (XMLWalk const walk : {XMLWalk{nullptr}, XMLWalk{WalkXMLBaseline}, ChooseXMLWalk()}) {
        SetXMLWalk(walk);
        CXMLDifferential differential(callbacks);
        std::uint32_t cut = data[1];
        auto const difference = differential.Feed(text, [&]() -> std::size_t {
            if (data[1] == 0)
                return text.size();
            cut = cut * 1103515245u + 12345u;
            return 1 + (cut >> 16) % (data[1] * 2);
        });
        if (difference) {
            std::fprintf(stderr, "%s", difference->c_str());
            std::abort();
        }
    }
    return 0;
}

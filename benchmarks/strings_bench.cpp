// Strings: measuring, conversion, comparison, hashing, searching, distance, each beside a plain loop or the C library.
// Bytes a second are of the source text; where there are none, calls a second.
#include <vlmcore/strings.h>

#ifdef VLMCORE_BENCH_PATHS
#  include "Core_TextKernels.h"
#endif

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace Velmor;

namespace {

char const* const Samples[] = {
    "The quick brown fox jumps over the lazy dog, and then some more. ",
    "Les na\xC3\xAF"
    "fs \xC3\xA6githales h\xC3\xA2tifs pondant \xC3\xA0 No\xC3\xABl o\xC3\xB9 il g\xC3\xA8le. ",
    "\xD0\xA1\xD1\x8A\xD0\xB5\xD1\x88\xD1\x8C \xD0\xB6\xD0\xB5 \xD0\xB5\xD1\x89\xD1\x91 "
    "\xD1\x8D\xD1\x82\xD0\xB8\xD1\x85 ",
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE6\x96\x87\xE7\xAB\xA0\xE3\x82\x92\xE6\x9B\xB8\xE3\x81\x8F\xE3"
    "\x80\x82",
    "\xF0\x9F\x98\x80\xF0\x9F\x98\x81\xF0\x9F\x98\x82\xF0\x9F\xA4\xA3 ",
};
char const* const SampleNames[] = {"ASCII", "Latin", "Cyrillic", "CJK", "Emoji"};
u64 const Sizes[] = {32, 4096, 1 << 20};

/// The words of a sample; of one without blanks, its characters.
std::vector<std::string> SplitWords(std::string const& sample)
{
    std::vector<std::string> words;
    bool const hasBlanks = sample.find(' ') != std::string::npos;
    for (u64 at = 0; at < sample.size();) {
        u64 size = Encodings::SUTF8::LeadSize(static_cast<u8>(sample[at]));
        if (hasBlanks)
            size = sample.find(' ', at) + 1 - at;
        words.push_back(sample.substr(at, size));
        at += size;
    }
    return words;
}

/// About `size` bytes of whole characters: words in an order that no branch predictor learns by heart.
std::string MakeText(unsigned sample, u64 size, u32 seed = 1)
{
    std::vector<std::string> const words = SplitWords(Samples[sample]);
    std::string text;
    while (text.size() < size) {
        seed = seed * 1664525 + 1013904223;
        text += words[(seed >> 16) % words.size()];
    }
    u64 end = 0;
    for (u64 next = 0; next <= size; next += Encodings::SUTF8::LeadSize(static_cast<u8>(text[next])))
        end = next;
    text.resize(end);
    return text;
}

/// The texts of one conversion, taken in turn: short ones come in many kinds.
struct SConversion {
    std::vector<CMutableString> sources;
    std::vector<u8> out;
    u64 round = 0;
    u64 bytes = 0;

    CMutableString const& Next()
    {
        CMutableString const& source = sources[round++ % sources.size()];
        bytes += source.GetAllocatedSize() - 1;
        return source;
    }
};

SConversion Prepare(unsigned sample, u64 size, EStringEncoding::Type from)
{
    SConversion conversion;
    for (u32 seed = 1; seed <= (size < 100 ? 256u : 1u); ++seed)
        conversion.sources.emplace_back(MakeText(sample, size, seed * 7919).c_str(), from);
    conversion.out.resize(4 * size + 64);
    return conversion;
}

void Report(benchmark::State& state, u64 bytes)
{
    state.SetBytesProcessed(static_cast<i64>(state.iterations()) * static_cast<i64>(bytes));
}

void Report(benchmark::State& state, SConversion const& conversion)
{
    state.SetBytesProcessed(static_cast<i64>(conversion.bytes));
}

void CopyAs(benchmark::State& state, unsigned sample, u64 size, EStringEncoding::Type from, EStringEncoding::Type to)
{
    SConversion conversion = Prepare(sample, size, from);
    for (auto _ : state) {
        conversion.Next().CopyAs(to, conversion.out.data(), false);
        benchmark::ClobberMemory();
    }
    Report(state, conversion);
}

// The scalar loops that a user would write for the same rules, lengths known.

void LoopFromUTF8(benchmark::State& state, unsigned sample, u64 size, EStringEncoding::Type to)
{
    SConversion conversion = Prepare(sample, size, EStringEncoding::UTF8);
    for (auto _ : state) {
        CMutableString const& text = conversion.Next();
        u8 const* const source = static_cast<u8 const*>(text.GetData());
        u64 const sourceSize = text.GetAllocatedSize() - 1;
        u8* out = conversion.out.data();
        for (u8 const* in = source; in < source + sourceSize;) {
            u32 codePoint = *in;
            if (codePoint < 0x80) {
                in += 1;
            }
            else if (codePoint < 0xE0) {
                codePoint = ((codePoint & 0x1F) << 6) | (in[1] & 0x3Fu);
                in += 2;
            }
            else if (codePoint < 0xF0) {
                codePoint = ((codePoint & 0x0F) << 12) | ((in[1] & 0x3Fu) << 6) | (in[2] & 0x3Fu);
                in += 3;
            }
            else {
                codePoint =
                    ((codePoint & 0x0F) << 18) | ((in[1] & 0x3Fu) << 12) | ((in[2] & 0x3Fu) << 6) | (in[3] & 0x3Fu);
                in += 4;
            }
            out = to == EStringEncoding::UTF16 ? Encodings::SUTF16::Write(codePoint, out)
                                               : Encodings::SUTF32::Write(codePoint, out);
        }
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    Report(state, conversion);
}

void LoopToUTF8(benchmark::State& state, unsigned sample, u64 size)
{
    SConversion conversion = Prepare(sample, size, EStringEncoding::UTF16);
    for (auto _ : state) {
        CMutableString const& text = conversion.Next();
        u8 const* const source = static_cast<u8 const*>(text.GetData());
        u64 const sourceSize = text.GetAllocatedSize() - 2;
        u8* out = conversion.out.data();
        for (u8 const* in = source; in < source + sourceSize;) {
            u32 codePoint = Encodings::Load<u16>(in);
            in += 2;
            if ((codePoint & 0xF800) == 0xD800) {
                codePoint = ((codePoint & 0x7FF) << 9) | (Encodings::Load<u16>(in) & 0x3FFu);
                in += 2;
            }
            out = Encodings::SUTF8::Write(codePoint, out);
        }
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    Report(state, conversion);
}

void Length(benchmark::State& state, unsigned sample, u64 size, EStringEncoding::Type encoding)
{
    SConversion texts = Prepare(sample, size, encoding);
    for (auto _ : state)
        benchmark::DoNotOptimize(CString(texts.Next()).GetLength());
    Report(state, texts);
}

void SizeAsUTF16(benchmark::State& state, unsigned sample, u64 size)
{
    SConversion texts = Prepare(sample, size, EStringEncoding::UTF8);
    for (auto _ : state)
        benchmark::DoNotOptimize(CString(texts.Next()).GetAllocatedSizeAs(EStringEncoding::UTF16));
    Report(state, texts);
}

void LengthByStrlen(benchmark::State& state, u64 size)
{
    std::string const text = MakeText(0, size);
    char const* data = text.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(data);
        benchmark::DoNotOptimize(std::strlen(data));
    }
    Report(state, text.size());
}

void LengthByLoop(benchmark::State& state, unsigned sample, u64 size)
{
    SConversion texts = Prepare(sample, size, EStringEncoding::UTF8);
    for (auto _ : state) {
        u64 count = 0;
        for (u8 const* place = static_cast<u8 const*>(texts.Next().GetData()); *place != 0; ++count)
            place += Encodings::SUTF8::LeadSize(*place);
        benchmark::DoNotOptimize(count);
    }
    Report(state, texts);
}

void Equal(benchmark::State& state, u64 size, EStringEncoding::Type left, EStringEncoding::Type right)
{
    std::string const text = MakeText(0, size);
    CMutableString const first(text.c_str(), left);
    CMutableString const second(text.c_str(), right);
    CString const firstView(first);
    CString const secondView(second);
    for (auto _ : state)
        benchmark::DoNotOptimize(firstView == secondView);
    Report(state, first.GetAllocatedSize() - 1);
}

void Order(benchmark::State& state, u64 size)
{
    std::string const text = MakeText(0, size);
    CMutableString const first(text.c_str(), EStringEncoding::UTF8);
    CMutableString const second(text.c_str(), EStringEncoding::UTF8);
    CString const firstView(first);
    CString const secondView(second);
    for (auto _ : state)
        benchmark::DoNotOptimize(firstView < secondView);
    Report(state, first.GetAllocatedSize() - 1);
}

void EqualByMemcmp(benchmark::State& state, u64 size)
{
    std::string const text = MakeText(0, size);
    std::string const other = text;
    for (auto _ : state) {
        char const* data = other.data();
        benchmark::DoNotOptimize(data);
        benchmark::DoNotOptimize(std::memcmp(text.data(), data, text.size()));
    }
    Report(state, text.size());
}

void Hash(benchmark::State& state, u64 size)
{
    CMutableString const text(MakeText(0, size).c_str(), EStringEncoding::UTF8);
    for (auto _ : state)
        benchmark::DoNotOptimize(text.GetHash());
    Report(state, text.GetAllocatedSize() - 1);
}

void HashByStandard(benchmark::State& state, u64 size)
{
    std::string const text = MakeText(0, size);
    for (auto _ : state)
        benchmark::DoNotOptimize(std::hash<std::string>()(text));
    Report(state, text.size());
}

void FindCodePoint(benchmark::State& state, u64 size)
{
    CMutableString const text(MakeText(0, size).c_str(), EStringEncoding::UTF8);
    for (auto _ : state)
        benchmark::DoNotOptimize(text.Find('#'));
    Report(state, text.GetAllocatedSize() - 1);
}

void FindByMemchr(benchmark::State& state, u64 size)
{
    std::string const text = MakeText(0, size);
    for (auto _ : state) {
        char const* data = text.data();
        benchmark::DoNotOptimize(data);
        benchmark::DoNotOptimize(std::memchr(data, '#', text.size()));
    }
    Report(state, text.size());
}

char const* const Needles[] = {"dogs", "lazy dog and"};

void FindText(benchmark::State& state, u64 size, unsigned needle)
{
    CMutableString const text(MakeText(0, size).c_str(), EStringEncoding::UTF8);
    CString const wanted(Needles[needle]);
    for (auto _ : state)
        benchmark::DoNotOptimize(text.Find(wanted));
    Report(state, text.GetAllocatedSize() - 1);
}

void FindTextByStrstr(benchmark::State& state, u64 size, unsigned needle)
{
    std::string const text = MakeText(0, size);
    for (auto _ : state) {
        char const* data = text.c_str();
        benchmark::DoNotOptimize(data);
        benchmark::DoNotOptimize(std::strstr(data, Needles[needle]));
    }
    Report(state, text.size());
}

void FindTextByStandard(benchmark::State& state, u64 size, unsigned needle)
{
    std::string const text = MakeText(0, size);
    for (auto _ : state)
        benchmark::DoNotOptimize(text.find(Needles[needle]));
    Report(state, text.size());
}

std::pair<std::string, std::string> MakeDistancePair(u64 size)
{
    std::string const left = MakeText(0, size);
    std::string right = left;
    for (u64 index = 0; index < right.size(); index += 5)
        right[index] = static_cast<char>('a' + index % 26);
    return {left, right};
}

void Distance(benchmark::State& state, u64 size)
{
    auto const [left, right] = MakeDistancePair(size);
    CString const first(left);
    CString const second(right);
    for (auto _ : state)
        benchmark::DoNotOptimize(first.GetDistance(second));
    state.SetItemsProcessed(state.iterations());
}

void DistanceByRow(benchmark::State& state, u64 size)
{
    auto const [left, right] = MakeDistancePair(size);
    std::vector<u32> row(right.size() + 1);
    for (auto _ : state) {
        for (u32 index = 0; index < row.size(); ++index)
            row[index] = index;
        for (u64 outer = 0; outer < left.size(); ++outer) {
            u32 diagonal = row[0];
            row[0] = static_cast<u32>(outer + 1);
            for (u64 inner = 1; inner < row.size(); ++inner) {
                u32 const above = row[inner];
                row[inner] =
                    left[outer] == right[inner - 1] ? diagonal : 1 + std::min({above, row[inner - 1], diagonal});
                diagonal = above;
            }
        }
        benchmark::DoNotOptimize(row.back());
    }
    state.SetItemsProcessed(state.iterations());
}

void CopyText(benchmark::State& state, u64 size)
{
    CMutableString const text(MakeText(0, size).c_str(), EStringEncoding::UTF8);
    for (auto _ : state) {
        CMutableString copy(text);
        benchmark::DoNotOptimize(copy.GetData());
    }
    state.SetItemsProcessed(state.iterations());
}

void CopyTextByStandard(benchmark::State& state, u64 size)
{
    std::string const text = MakeText(0, size);
    for (auto _ : state) {
        std::string copy(text);
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Body>
void Register(std::string const& name, Body&& body)
{
    benchmark::RegisterBenchmark(("Strings/" + name).c_str(), body);
}

void RegisterAll()
{
    using enum EStringEncoding::Type;
    for (u64 const size : Sizes) {
        std::string const bytes = "/" + std::to_string(size);
        for (unsigned sample = 0; sample < 5; ++sample) {
            std::string const where = std::string("/") + SampleNames[sample] + bytes;
            Register("8to16" + where + "/ours",
                     [=](benchmark::State& state) { CopyAs(state, sample, size, UTF8, UTF16); });
            Register("8to16" + where + "/loop",
                     [=](benchmark::State& state) { LoopFromUTF8(state, sample, size, UTF16); });
            Register("8to32" + where + "/ours",
                     [=](benchmark::State& state) { CopyAs(state, sample, size, UTF8, UTF32); });
            Register("8to32" + where + "/loop",
                     [=](benchmark::State& state) { LoopFromUTF8(state, sample, size, UTF32); });
            Register("16to8" + where + "/ours",
                     [=](benchmark::State& state) { CopyAs(state, sample, size, UTF16, UTF8); });
            Register("16to8" + where + "/loop", [=](benchmark::State& state) { LoopToUTF8(state, sample, size); });
            Register("Length8" + where + "/ours", [=](benchmark::State& state) { Length(state, sample, size, UTF8); });
            Register("SizeAs16" + where + "/ours", [=](benchmark::State& state) { SizeAsUTF16(state, sample, size); });
            Register("Length8" + where + "/loop", [=](benchmark::State& state) { LengthByLoop(state, sample, size); });
        }
        Register("Length16/ASCII" + bytes + "/ours", [=](benchmark::State& state) { Length(state, 0, size, UTF16); });
        Register("Length8/ASCII" + bytes + "/strlen", [=](benchmark::State& state) { LengthByStrlen(state, size); });
        Register("Equal8" + bytes + "/ours", [=](benchmark::State& state) { Equal(state, size, UTF8, UTF8); });
        Register("Order8" + bytes + "/ours", [=](benchmark::State& state) { Order(state, size); });
        Register("Order8" + bytes + "/memcmp", [=](benchmark::State& state) { EqualByMemcmp(state, size); });
        Register("Equal8" + bytes + "/memcmp", [=](benchmark::State& state) { EqualByMemcmp(state, size); });
        Register("Equal8and16" + bytes + "/ours", [=](benchmark::State& state) { Equal(state, size, UTF8, UTF16); });
        Register("Hash" + bytes + "/ours", [=](benchmark::State& state) { Hash(state, size); });
        Register("Hash" + bytes + "/std_hash", [=](benchmark::State& state) { HashByStandard(state, size); });
        Register("FindCodePoint" + bytes + "/ours", [=](benchmark::State& state) { FindCodePoint(state, size); });
        Register("FindCodePoint" + bytes + "/memchr", [=](benchmark::State& state) { FindByMemchr(state, size); });
        for (unsigned needle = 0; needle < 2; ++needle) {
            std::string const where = "/" + std::to_string(std::strlen(Needles[needle])) + bytes;
            Register("FindText" + where + "/ours", [=](benchmark::State& state) { FindText(state, size, needle); });
            Register("FindText" + where + "/strstr",
                     [=](benchmark::State& state) { FindTextByStrstr(state, size, needle); });
            Register("FindText" + where + "/std_find",
                     [=](benchmark::State& state) { FindTextByStandard(state, size, needle); });
        }
        Register("Copy" + bytes + "/ours", [=](benchmark::State& state) { CopyText(state, size); });
        Register("Copy" + bytes + "/std_string", [=](benchmark::State& state) { CopyTextByStandard(state, size); });
    }
    for (u64 const size : {u64{8}, u64{64}, u64{1000}}) {
        Register("Distance/" + std::to_string(size) + "/ours", [=](benchmark::State& state) { Distance(state, size); });
        Register("Distance/" + std::to_string(size) + "/row",
                 [=](benchmark::State& state) { DistanceByRow(state, size); });
    }
}

#ifdef VLMCORE_BENCH_PATHS
/// Takes the set of kernels that `--kernels=` names; false for one that this processor has not got.
bool ChooseKernels(int count, char** arguments)
{
    using TextKernels::ELevel;
    std::pair<char const*, ELevel> const levels[] = {
        {"Plain", ELevel::Plain}, {"SSE2", ELevel::SSE2}, {"AVX2", ELevel::AVX2}, {"AVX512", ELevel::AVX512}};
    for (int index = 1; index < count; ++index) {
        if (std::strncmp(arguments[index], "--kernels=", 10) != 0)
            continue;
        auto const level = std::find_if(std::begin(levels), std::end(levels), [&](auto const& known) {
            return std::strcmp(known.first, arguments[index] + 10) == 0;
        });
        if (level == std::end(levels) || !TextKernels::Force(level->second))
            return false;
    }
    return true;
}
#else
/// The shared library always takes its best.
bool ChooseKernels(int, char**)
{
    return true;
}
#endif

} // namespace

int main(int count, char** arguments)
{
    Memory::Initialize(0, 0);
    if (!ChooseKernels(count, arguments)) {
        std::fputs("--kernels= takes Plain, SSE2, AVX2 or AVX512, as far as the processor has them\n", stderr);
        return 1;
    }
    benchmark::Initialize(&count, arguments);
    RegisterAll();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

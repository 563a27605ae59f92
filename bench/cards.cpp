// Looking up a card by ATR. The library carries its card database compressed, so the first look-up
// decodes base64, inflates and parses before it searches; later ones only search. The yardstick is
// zlib's inflate and RapidJSON's parse of the same bytes, the least such a look-up could cost.
//
// ourWholeLookup is the first case, ourLookupInLoadedDocument the second.

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "foundation/json/parser.h"
#include "foundation/text/base64.h"
#include "pkcs11/carddata/carddata.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {
namespace {

const char* const kAtr = "3B9F958131FE9F006646530534002571DF000000000077";

std::vector<std::uint8_t> packed() {
    std::string text;
    for (const auto piece : carddata::constants()) text.append(piece);
    std::vector<std::uint8_t> out;
    appendBase64(text, out);
    return out;
}

std::string document() {
    LogNull log;
    DataBuffer out;
    carddata::load(carddata::constants(), out, log);
    return {out.span().begin(), out.span().end()};
}

// The floor of a complete look-up: zlib alone, into an existing buffer.
void inflateAlone(benchmark::State& state) {
    auto in = packed();
    std::vector<std::uint8_t> out(60000);
    for (auto _ : state) {
        z_stream stream{};
        inflateInit2(&stream, -15);  // raw deflate
        stream.next_in = in.data();
        stream.avail_in = static_cast<uInt>(in.size());
        stream.next_out = out.data();
        stream.avail_out = static_cast<uInt>(out.size());
        benchmark::DoNotOptimize(inflate(&stream, Z_FINISH));
        inflateEnd(&stream);
    }
}
BENCHMARK(inflateAlone);

void rapidJsonParse(benchmark::State& state) {
    const std::string text = document();
    for (auto _ : state) {
        rapidjson::Document parsed;
        parsed.Parse(text.data(), text.size());
        benchmark::DoNotOptimize(parsed.IsObject());
    }
}
BENCHMARK(rapidJsonParse);

void ourParse(benchmark::State& state) {
    const std::string text = document();
    for (auto _ : state) {
        JsonValue parsed;
        JsonError error;
        benchmark::DoNotOptimize(parseJson(text, parsed, error));
    }
}
BENCHMARK(ourParse);

void ourLoad(benchmark::State& state) {
    LogNull log;
    for (auto _ : state) {
        ClsJsonObject json;
        benchmark::DoNotOptimize(ClsPkcs11::GetCardDataJson(json, log));
    }
}
BENCHMARK(ourLoad);

void ourWholeLookup(benchmark::State& state) {
    LogNull log;
    for (auto _ : state) {
        StringBuffer name;
        bool readOnly = false;
        ExtPtrArraySb paths;
        benchmark::DoNotOptimize(ClsPkcs11::CardDataLookupAtr2(kAtr, name, readOnly, paths, log));
    }
}
BENCHMARK(ourWholeLookup);

void ourLookupInLoadedDocument(benchmark::State& state) {
    LogNull log;
    ClsJsonObject json;
    ClsPkcs11::GetCardDataJson(json, log);
    for (auto _ : state) {
        StringBuffer name;
        bool readOnly = false;
        ExtPtrArraySb paths;
        benchmark::DoNotOptimize(
            ClsPkcs11::CardDataLookupAtr(json, kAtr, name, readOnly, paths, log));
    }
}
BENCHMARK(ourLookupInLoadedDocument);

}  // namespace
}  // namespace mervane

// What a call costs beside the module: the frame, its log, and an object's life.

#include <benchmark/benchmark.h>

#include "pkcs11/clspkcs11.h"

namespace mervane {
namespace {

void objectLife(benchmark::State& state) {
    for (auto _ : state) {
        ClsPkcs11 object;
        benchmark::DoNotOptimize(&object);
    }
}
BENCHMARK(objectLife);

void callThatFails(benchmark::State& state) {
    ClsPkcs11 object;
    for (auto _ : state) benchmark::DoNotOptimize(object.CloseSession());
}
BENCHMARK(callThatFails);

void logLine(benchmark::State& state) {
    ClsPkcs11 object;
    const LogContextExitor call(object, "Call");
    for (auto _ : state) object.log().LogDataLong("expectedSignatureSize", 256);
}
BENCHMARK(logLine);

void logContext(benchmark::State& state) {
    ClsPkcs11 object;
    for (auto _ : state) {
        const LogContextExitor call(object, "Call");
        object.log().LogInfo("Found matching PKCS11 RSA private key by ID.");
    }
}
BENCHMARK(logContext);

}  // namespace
}  // namespace mervane

// What the library adds to every call, whatever the module does: the frame of a public method
// (lock, log context, exception barrier), log lines, and creating and destroying an object.
//
// callThatFails fails at once for want of a session, so it is the frame plus one error line.

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

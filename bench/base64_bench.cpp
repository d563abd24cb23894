// Base64 of 16 MiB, both ways, beside a copy of its text in memory.

#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/large_request_bench.h"
#include "core/base64.h"
#include "core/base64_codecs.h"

namespace corvane {
namespace {

std::string someBytes() {
    std::string bytes(largeString, '\0');
    std::uint32_t number = 1;
    for (char& byte : bytes) {
        number = number * 1664525U + 1013904223U;
        byte = static_cast<char>(number >> 24U);
    }
    return bytes;
}

/// Into memory that is in use already.
void copyText(benchmark::State& state) {
    const std::string text = encodeBase64(someBytes());
    std::string target(text.size(), 'y');
    for (auto _ : state) {
        std::memcpy(target.data(), text.data(), text.size());
        benchmark::ClobberMemory();
    }
}

void encode(benchmark::State& state) {
    const std::string bytes = someBytes();
    std::string target(base64Length(bytes.size()), 'y');
    for (auto _ : state) {
        encodeBase64(bytes, target.data());
        benchmark::ClobberMemory();
    }
}

void decode(benchmark::State& state) {
    const std::string text = encodeBase64(someBytes());
    std::string target(decodedBase64Length(text), 'y');
    const Base64Codec& codec = fastestBase64Codec();
    for (auto _ : state) {
        if (!decodeBase64With(codec, text, target.data())) {
            state.SkipWithError("the text was refused");
        }
        benchmark::ClobberMemory();
    }
}

/// Into memory fresh from the system, as any that holds a string that was not there before.
void copyTextToFreshMemory(benchmark::State& state) {
    const std::string text = encodeBase64(someBytes());
    for (auto _ : state) {
        void* const target = ::mmap(nullptr, text.size(), PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (target == MAP_FAILED) {
            state.SkipWithError("no memory");
            break;
        }
        std::memcpy(target, text.data(), text.size());
        benchmark::DoNotOptimize(target);
        benchmark::ClobberMemory();
        ::munmap(target, text.size());
    }
}

void encodeToString(benchmark::State& state) {
    const std::string bytes = someBytes();
    for (auto _ : state) {
        const std::string text = encodeBase64(bytes);
        benchmark::DoNotOptimize(text.data());
    }
}

void decodeToString(benchmark::State& state) {
    const std::string text = encodeBase64(someBytes());
    for (auto _ : state) {
        const std::optional<std::string> bytes = decodeBase64(text);
        if (!bytes) {
            state.SkipWithError("the text was refused");
            break;
        }
        benchmark::DoNotOptimize(bytes->data());
    }
}

BENCHMARK(copyText)->Name("base64/memcpy")->UseRealTime();
BENCHMARK(encode)->Name("base64/encode")->UseRealTime();
BENCHMARK(decode)->Name("base64/decode")->UseRealTime();
BENCHMARK(copyTextToFreshMemory)->Name("base64/memcpy_fresh")->UseRealTime();
BENCHMARK(encodeToString)->Name("base64/encode_string")->UseRealTime();
BENCHMARK(decodeToString)->Name("base64/decode_string")->UseRealTime();

}  // namespace
}  // namespace corvane

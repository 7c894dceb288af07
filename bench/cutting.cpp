// Measures how fast the scanner cuts requests out of text, without sockets and without executing
// the requests. An iteration has one or more reads. The rate counts the bytes of the reads.

#include "requestscanner.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

namespace {

// The size of the daemon's reads, without the rest of the line that the daemon adds.
constexpr std::size_t bytesPerRead = std::size_t(16) * 1024;

std::string repeated(std::string_view text, std::size_t bytes)
{
    std::string result;
    while (result.size() + text.size() <= bytes)
        result += text;
    return result;
}

/// Appends the text in reads of the daemon's size, and takes all requests.
std::size_t cutAll(RequestScanner &scanner, std::string_view text)
{
    std::size_t requests = 0;
    Request request;
    while (!text.empty()) {
        const std::string_view read = text.substr(0, bytesPerRead);
        text.remove_prefix(read.size());
        scanner.append(read.data(), read.size());
        while (scanner.takeNext(request)) {
            benchmark::DoNotOptimize(request.text.data());
            ++requests;
        }
    }
    return requests;
}

/// Uses one connection for all iterations, as ordinary clients do.
void cutOnOneConnection(benchmark::State &state, const std::string &text, std::size_t expected)
{
    RequestScanner scanner;
    while (state.KeepRunning()) {
        if (cutAll(scanner, text) != expected) {
            state.SkipWithError("wrong number of requests");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

/// Uses a new connection for each iteration, because its request is never complete.
void cutOnNewConnections(benchmark::State &state, const std::string &text)
{
    while (state.KeepRunning()) {
        RequestScanner scanner;
        if (cutAll(scanner, text) != 0) {
            state.SkipWithError("unexpected request");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void ordinaryGet(benchmark::State &state)
{
    cutOnOneConnection(state, "GET POS\n", 1);
}

void ordinarySet(benchmark::State &state)
{
    cutOnOneConnection(state, "SET POS 120 SPE 255 FOR 100 GTO 1\n", 1);
}

void pipelinedGets(benchmark::State &state)
{
    const std::string text = repeated("GET POS\n", bytesPerRead);
    cutOnOneConnection(state, text, text.size() / 8);
}

void pipelinedSets(benchmark::State &state)
{
    const std::string text = repeated("SET POS 1\n", bytesPerRead);
    cutOnOneConnection(state, text, text.size() / 10);
}

void longestSet(benchmark::State &state)
{
    constexpr std::size_t ending = 1;
    cutOnOneConnection(
        state, "SET" + repeated(" AAA 111", RequestScanner::maxRequestLength - 3 - ending) + '\n',
        1);
}

/// Three digits can be a name or a value. The wrong character at the end invalidates all readings.
void hostileLine(benchmark::State &state)
{
    cutOnOneConnection(state, "SET AAA" + repeated(" 111", bytesPerRead - 9) + "%\n", 0);
}

void manyHostileLines(benchmark::State &state)
{
    cutOnOneConnection(state, repeated("SET AAA" + repeated(" 111", 112) + "%\n", bytesPerRead), 0);
}

void hostileLineWithoutEnd(benchmark::State &state)
{
    cutOnNewConnections(state, "SET AAA" + repeated(" 111", std::size_t(1024) * 1024));
}

void keywordsWithoutEnd(benchmark::State &state)
{
    cutOnNewConnections(state, repeated("SET ", bytesPerRead));
}

void randomBytes(benchmark::State &state)
{
    std::mt19937 random(1);
    std::uniform_int_distribution<int> byte(1, 255);
    std::string text(bytesPerRead, '\0');
    for (char &c : text)
        c = static_cast<char>(byte(random));
    cutOnNewConnections(state, text);
}

void randomLetters(benchmark::State &state)
{
    constexpr std::string_view alphabet = "SETG 1\n-";
    std::mt19937 random(1);
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    std::string text(bytesPerRead, '\0');
    for (char &c : text)
        c = alphabet[pick(random)];
    RequestScanner scanner;
    cutOnOneConnection(state, text, cutAll(scanner, text));
}

BENCHMARK(ordinaryGet)->Name("ordinary: one GET in a read");
BENCHMARK(ordinarySet)->Name("ordinary: one SET of four pairs in a read");
BENCHMARK(pipelinedGets)->Name("pipelined: 16 KiB of GETs in a read");
BENCHMARK(pipelinedSets)->Name("pipelined: 16 KiB of SETs in a read");
BENCHMARK(longestSet)->Name("longest: a SET of 1 MiB");
BENCHMARK(hostileLine)->Name("hostile: SET AAA 111 111 ..., a wrong character, 16 KiB");
BENCHMARK(manyHostileLines)->Name("hostile: the same in lines of 457 bytes");
BENCHMARK(hostileLineWithoutEnd)->Name("hostile: the same, 1 MiB that never ends");
BENCHMARK(keywordsWithoutEnd)->Name("hostile: SET SET SET ..., 16 KiB that never end");
BENCHMARK(randomBytes)->Name("garbage: any bytes");
BENCHMARK(randomLetters)->Name("garbage: the letters of requests, at random");

} // namespace

BENCHMARK_MAIN();

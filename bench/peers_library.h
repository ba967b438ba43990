// What a library offers to the benchmarks, ours and others alike: a table of operations, empty where there is none.
// Each peer fills its own in its own file, which is built when the peer's package is installed. One thread.
#pragma once

#include "ipps.h"
#include "peers_contest.h"

#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include <stdlib.h>

namespace bench {

struct Library {
    std::string name;
    std::string about;  // version, and what it says of the processor

    // Element by element; len counts elements of the destination. Destination and source may be the same.
    void (*fromDevice)(const Ipp16sc* src, Ipp32fc* dst, int len) = nullptr;  // (value - 576) / 2^15
    void (*multiply)(const Ipp32fc* src1, const Ipp32fc* src2, Ipp32fc* dst, int len) = nullptr;
    void (*multiplyReal)(const float* src1, const float* src2, float* dst, int len) = nullptr;
    void (*power)(const Ipp32fc* src, float* dst, int len) = nullptr;  // re^2 + im^2
    void (*magnitude)(const Ipp32fc* src, float* dst, int len) = nullptr;
    void (*phase)(const Ipp32fc* src, float* dst, int len) = nullptr;  // [rad]
    void (*root)(const float* src, float* dst, int len) = nullptr;
    void (*exponential)(const float* src, float* dst, int len) = nullptr;
    void (*decibel)(const float* src, float* dst, int len) = nullptr;  // 10 log10
    void (*minimum)(const float* src1, const float* src2, float* dst, int len) = nullptr;
    void (*maximum)(const float* src1, const float* src2, float* dst, int len) = nullptr;

    // Processes from src to dst, which for a transform may be the same.
    Process (*transform)(Ipp32fc* src, Ipp32fc* dst, int order) = nullptr;  // forward, undivided; plans may spoil both
    Process (*transpose)(const float* src, float* dst, int rows, int columns) = nullptr;
    // Times exp(2 pi j freq n), running on from run to run.
    std::vector<Process> (*shift)(const Ipp32fc* src, Ipp32fc* dst, int len, double freq) = nullptr;
    // A stream filtered by real taps, of which every factor-th value is kept, running on from run to run.
    std::vector<Process> (*filter)(const Ipp32fc* src, Ipp32fc* dst, int len, std::span<const float> taps,
                                   int factor) = nullptr;
};

// A block of memory on a 64-byte boundary. Blocks begin at different offsets in a page, so that a store to one never
// seems to meet the next load from another, and at the same offsets in each run.
template <typename T>
std::shared_ptr<T[]> MakeBlock(std::size_t count) {
    constexpr std::size_t PAGE = 4096, STEP = 19 * 64;
    static std::size_t offset = 0;
    void* memory = nullptr;
    if (posix_memalign(&memory, PAGE, PAGE + count * sizeof(T)) != 0) throw std::bad_alloc();
    offset = (offset + STEP) % PAGE;
    const std::shared_ptr<void> owner(memory, free);
    return {owner, reinterpret_cast<T*>(static_cast<char*>(memory) + offset)};
}

Library VolkLibrary();
Library LiquidLibrary();
Library KissfftLibrary();
// FFTW remembers its plans in the file, which makes all but the first run start at once; empty: none.
Library FftwLibrary(const std::string& wisdomFile);
void SaveFftwPlans(const std::string& wisdomFile);
// Loops as anybody writes them, which the compiler may turn into whatever it likes for the processor that it finds.
Library LoopsLibrary();

// A product of spectra, folded for filters that keep every factor-th value: dst[k] is the sum of src1[k + s len] x
// src2[k + s len] for s from 0 to factor - 1.
void MultiplyFold(const Ipp32fc* src1, const Ipp32fc* src2, Ipp32fc* dst, int len, int factor);

}  // namespace bench

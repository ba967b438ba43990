// What the fuzzers share. Each defines LLVMFuzzerTestOneInput and states what must hold of any input; a sanitizer, or
// Require, reports what does not.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>

#include "sim/seams.h"

inline void Require(bool holds, int line = __builtin_LINE()) {
    if (holds) return;
    std::fprintf(stderr, "line %d: does not hold\n", line);
    std::abort();
}

// A home folder of this process's own, empty but for the folder of the library's files.
inline const std::filesystem::path& FuzzHome() {
    static const std::filesystem::path home = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "tq-fuzz-XXXXXX").string();
        Require(mkdtemp(pattern.data()) != nullptr);
        std::filesystem::create_directory(std::filesystem::path(pattern) / ".tarnwell");
        sim::SetHome(pattern);
        std::atexit([] { std::filesystem::remove_all(FuzzHome()); });
        return std::filesystem::path(pattern);
    }();
    return home;
}

inline void WriteFile(const std::filesystem::path& path, std::span<const uint8_t> bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

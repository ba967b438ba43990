// tq-sim: runs a program on virtual instruments. It finds the preload library and the default scene beside itself, in
// the build tree, or in the folders of an installation, and leaves the rest to the preload library (preload.cpp).
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

namespace {

namespace fs = std::filesystem;

constexpr std::string_view HELP =
    "Usage: tq-sim [--scene FILE] [--fast] [--serials N,M,...] [--home DIR] -- PROGRAM ARGS\n"
    "\n"
    "Runs an unmodified program with virtual TQ720 instruments on its USB. The program may use libtq_api or plain\n"
    "libusb, from any language; it must be linked dynamically. It sees no real USB device.\n"
    "\n"
    "  --scene FILE       what the antenna receives; default: the scene of the demo\n"
    "  --fast             data as fast as memory allows; default: at the real rate\n"
    "  --serials N,M,...  one instrument for each number of at most 8 digits; default: 12345678\n"
    "  --home DIR         where libtq_api keeps its files of these instruments; default: tq-sim-UID in the temp "
    "folder\n"
    "  --help             this text\n"
    "\n"
    "Example: tq-sim --fast --serials 11112222,33334444 -- python3 sweep.py\n";

constexpr const char* PRELOAD_LIBRARY = "libtq_sim_preload.so";
constexpr const char* UMOCKDEV_PRELOAD_LIBRARY = "libumockdev-preload.so.0";  // found by the dynamic linker

// Where the files may stand, seen from the folder of this program: beside it, in the build tree, in an installation.
constexpr std::array<const char*, 5> LIBRARY_FOLDERS = {".", "../lib", "../lib/tq_sim",
                                                        "../lib/x86_64-linux-gnu/tq_sim", "../lib64/tq_sim"};
constexpr std::array<const char*, 2> SCENE_FILES = {"scenes/default.txt", "../share/tq_sim/scenes/default.txt"};

[[noreturn]] void Fail(const std::string& reason) {
    std::fprintf(stderr, "tq-sim: %s\nTry tq-sim --help.\n", reason.c_str());
    std::exit(2);
}

void Set(const char* name, const std::string& value) {
    if (setenv(name, value.c_str(), 1) != 0) Fail(std::string(name) + ": " + std::strerror(errno));
}

// The value of a file option as the program will find it, whatever folder it works in.
std::string Absolute(const std::string& path) {
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    if (error) Fail(path + ": " + error.message());
    return absolute.string();
}

std::string FindLibrary(const fs::path& here) {
    for (const char* folder : LIBRARY_FOLDERS) {
        const fs::path candidate = here / folder / PRELOAD_LIBRARY;
        if (std::error_code error; fs::is_regular_file(candidate, error)) return fs::weakly_canonical(candidate, error);
    }
    Fail(std::string(PRELOAD_LIBRARY) + " is not near " + here.string());
}

std::string FindScene(const fs::path& here) {
    for (const char* file : SCENE_FILES) {
        if (std::error_code error; fs::is_regular_file(here / file, error))
            return fs::weakly_canonical(here / file, error);
    }
    Fail("the default scene is not near " + here.string() + "; name one with --scene");
}

}  // namespace

int main(int argc, char** argv) {
    const std::span arguments(argv, static_cast<std::size_t>(argc));
    std::string scene;
    std::size_t at = 1;
    for (; at < arguments.size() && arguments[at][0] == '-'; ++at) {
        const std::string_view option = arguments[at];
        if (option == "--") {
            ++at;
            break;
        }
        if (option == "--help") {
            std::fwrite(HELP.data(), 1, HELP.size(), stdout);
            return 0;
        }
        if (option == "--fast") {
            Set("TQ_SIM_FAST", "1");
            continue;
        }
        if (option != "--scene" && option != "--serials" && option != "--home") {
            Fail("unknown option " + std::string(option));
        }
        if (at + 1 >= arguments.size()) Fail(std::string(option) + " needs a value");
        const std::string value = arguments[++at];
        if (option == "--scene") scene = Absolute(value);
        if (option == "--serials") Set("TQ_SIM_SERIALS", value);
        if (option == "--home") Set("TQ_SIM_HOME", Absolute(value));
    }
    if (at >= arguments.size()) Fail("no program given");

    std::error_code error;
    const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
    if (error) Fail("/proc/self/exe: " + error.message());
    Set("TQ_SIM_SCENE", scene.empty() ? FindScene(here) : scene);

    // Ours stands in front: what is not for us goes on to umockdev's.
    std::string preload = FindLibrary(here) + ":" + UMOCKDEV_PRELOAD_LIBRARY;
    if (const char* const others = std::getenv("LD_PRELOAD"); others != nullptr && *others != '\0') {
        preload += ":" + std::string(others);
    }
    Set("LD_PRELOAD", preload);

    // argv ends with a null pointer, and so does its rest.
    execvp(arguments[at], &arguments[at]);
    std::fprintf(stderr, "tq-sim: %s: %s\n", arguments[at], std::strerror(errno));
    return 127;
}

// The preload library of tq-sim: puts virtual instruments on the bus of a program that knows nothing of it. It waits
// until the program starts libusb, which looks at the file system of /sys before all else; the many processes that a
// program starts besides, and that use no USB, stay as they are.
//
// Environment, set by the launcher:
//     TQ_SIM_SCENE    scene file; absent: an empty band
//     TQ_SIM_SERIALS  serial numbers, separated by commas; absent: 12345678
//     TQ_SIM_FAST     1: data as fast as memory allows; absent: at the real rate
//     TQ_SIM_HOME     home folder for the files that the library keeps; absent: a private one in the temp folder
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "sim/bus.h"
#include "sim/instrument.h"
#include "sim/scene.h"
#include "sim/seams.h"

namespace sim {
namespace {

constexpr std::string_view DEFAULT_SERIALS = "12345678";
constexpr std::uint32_t SERIAL_MAX = 99999999;

std::string Environment(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

[[noreturn]] void GiveUp(const std::string& reason) {
    std::fprintf(stderr, "tq-sim: %s\n", reason.c_str());
    std::_Exit(EXIT_FAILURE);
}

std::vector<std::uint32_t> Serials(std::string_view list) {
    std::vector<std::uint32_t> serials;
    while (!list.empty()) {
        const std::size_t length = std::min(list.find(','), list.size());
        std::uint32_t serial = 0;
        const auto [end, error] = std::from_chars(list.data(), list.data() + length, serial);
        if (error != std::errc() || end != list.data() + length || serial > SERIAL_MAX) {
            GiveUp("not a serial number of at most 8 digits: " + std::string(list.substr(0, length)));
        }
        serials.push_back(serial);
        list.remove_prefix(std::min(length + 1, list.size()));
    }
    return serials;
}

// The same folder for each run of this user, so that a calibration record that was read once stays cached. In a temp
// folder that all users share, only one that is ours and closed to others will do.
std::string PrivateHome() {
    const std::string folder =
        (std::filesystem::temp_directory_path() / ("tq-sim-" + std::to_string(getuid()))).string();
    mkdir(folder.c_str(), S_IRWXU);
    struct stat status {};
    if (lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != getuid() ||
        (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        GiveUp("cannot use " + folder + "; choose a folder with --home");
    }
    return folder;
}

void PlugInstruments() {
    InstrumentOptions options;
    options.speed = Environment("TQ_SIM_FAST") == "1" ? Speed::fast : Speed::paced;
    if (const std::string path = Environment("TQ_SIM_SCENE"); !path.empty()) {
        SceneResult result = LoadScene(path);
        if (!result.Ok()) GiveUp(path + ": " + result.error);
        options.scene = std::move(result.scene);
    }
    std::string home = Environment("TQ_SIM_HOME");
    if (home.empty()) home = PrivateHome();
    std::error_code error;
    std::filesystem::create_directories(home, error);
    if (error) GiveUp(home + ": " + error.message());
    SetHome(home);

    const std::string serials = Environment("TQ_SIM_SERIALS");
    for (const std::uint32_t serial : Serials(serials.empty() ? DEFAULT_SERIALS : serials)) {
        options.serial = serial;
        Bus::Get().Plug(std::make_shared<Instrument>(options));
    }
}

void PlugInstrumentsOnce() {
    // Making the test bed looks at the file system, too.
    static thread_local bool inside = false;
    if (inside) return;
    inside = true;
    static std::once_flag once;
    std::call_once(once, PlugInstruments);
    inside = false;
}

// A parent's test bed is not ours: without this, our /sys would be that of its virtual bus.
[[gnu::constructor]] void ForgetParent() { unsetenv("UMOCKDEV_DIR"); }

}  // namespace
}  // namespace sim

extern "C" [[gnu::visibility("default")]] int statfs(const char* path, struct statfs* buffer) noexcept {
    static auto* const next = reinterpret_cast<decltype(&statfs)>(dlsym(RTLD_NEXT, "statfs"));
    const int result = next(path, buffer);
    if ((result != 0 && errno == EFAULT) || std::strcmp(path, "/sys") != 0) return result;
    sim::PlugInstrumentsOnce();
    return next(path, buffer);
}

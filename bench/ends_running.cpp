// A program that ends, or closes the library, in the middle of a stream, as users' programs do. Runs under tq-sim:
//     ends_running LIBRARY sweep|realtime|iq|list|audio return|exit|dlclose
#include <dlfcn.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

#include "tq_api.h"

namespace {

constexpr int IQ_SAMPLES = 100000;
constexpr int LIST_SAMPLES = 1000000;  // of a new step

// Static, since the library writes into it to the very end.
std::array<float, 2 * LIST_SAMPLES> data;

void* library;

// A function of the library by its name, called with these arguments.
template <class... Parameters, class... Arguments>
TqStatus Call(TqStatus (*)(Parameters...), const char* name, Arguments... arguments) {
    return reinterpret_cast<TqStatus (*)(Parameters...)>(dlsym(library, name))(arguments...);
}
#define TQ_CALL(function, ...) Call(static_cast<decltype(&(function))>(nullptr), #function, __VA_ARGS__)

TqMode ModeOf(std::string_view name) {
    if (name == "sweep") return tqModeSweeping;
    if (name == "realtime") return tqModeRealTime;
    if (name == "iq") return tqModeIQStreaming;
    return name == "list" ? tqModeIQSweepList : tqModeAudio;
}

TqStatus TakeData(int device, TqMode mode) {
    switch (mode) {
        case tqModeSweeping:
            return TQ_CALL(tqGetSweep, device, data.data(), nullptr, nullptr);
        case tqModeRealTime:
            return TQ_CALL(tqGetRealTimeFrame, device, nullptr, nullptr, data.data(), nullptr, nullptr, nullptr);
        case tqModeIQStreaming:
            return TQ_CALL(tqGetIQ, device, data.data(), IQ_SAMPLES, nullptr, 0, nullptr, tqFalse, nullptr, nullptr);
        case tqModeIQSweepList:
            return TQ_CALL(tqIQSweepListGetSweep, device, data.data(), nullptr);
        default:
            return TQ_CALL(tqGetAudio, device, data.data());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return EXIT_FAILURE;
    library = dlopen(argv[1], RTLD_NOW);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return EXIT_FAILURE;
    }
    const TqMode mode = ModeOf(argv[2]);
    const std::string_view way = argv[3];
    int device = -1;
    TqStatus status = TQ_CALL(tqOpenDevice, &device);
    if (status == tqNoError) status = TQ_CALL(tqSetSweepStartStop, device, 1e9, 2e9);
    if (status == tqNoError) status = TQ_CALL(tqSetIQSweepListSteps, device, 1);
    if (status == tqNoError) status = TQ_CALL(tqConfigure, device, mode);
    if (status == tqNoError) status = TakeData(device, mode);
    if (status < tqNoError) {
        std::fprintf(stderr, "no data to begin with, status %d\n", status);
        return EXIT_FAILURE;
    }
    // One more thread is inside a call when the program ends, which takes the instruments off the bus.
    if (way != "dlclose") {
        std::thread([device, mode] {
            while (TakeData(device, mode) >= tqNoError) continue;
        }).detach();
    }
    if (way == "exit") std::exit(EXIT_SUCCESS);
    // Until the program ends the library's threads go on.
    if (way == "dlclose") dlclose(library);
    return EXIT_SUCCESS;
}

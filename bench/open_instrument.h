// A virtual instrument, plugged in and opened, for benchmarks and soak runs. A home folder of its own keeps the cached
// records of real instruments out of reach.
#pragma once

#include "sim/bus.h"
#include "sim/instrument.h"
#include "sim/seams.h"
#include "tq_api.h"

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include <stdlib.h>

class OpenInstrument {
public:
    explicit OpenInstrument(const sim::InstrumentOptions& options)
        : OpenInstrument(std::make_shared<sim::Instrument>(options), options.serial) {}
    OpenInstrument(std::shared_ptr<sim::Instrument> instrument, uint32_t serial) {
        std::string pattern = (std::filesystem::temp_directory_path() / "tq-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) return;
        home = pattern;
        sim::SetHome(pattern);
        sim::SetSleepFactor(100);
        sim::Bus::Get().Plug(std::move(instrument));
        if (tqOpenDeviceBySerial(&device, static_cast<int>(serial)) != tqNoError) device = -1;
    }
    ~OpenInstrument() {
        if (device >= 0) tqCloseDevice(device);
        sim::Bus::Get().Reset();
        std::error_code ignored;
        if (!home.empty()) std::filesystem::remove_all(home, ignored);
    }
    OpenInstrument(const OpenInstrument&) = delete;
    OpenInstrument& operator=(const OpenInstrument&) = delete;

    int device = -1;  // -1: not open

private:
    std::filesystem::path home;
};

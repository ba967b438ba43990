// What the end-to-end tests of the streams share: one virtual instrument under the exports, and the faults that every
// stream has to survive.
#pragma once

#include "tq_api.h"

#include "bus_fixture.h"

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

inline sim::Emitter Carrier(double freqHz, double levelDbm) {
    sim::Emitter emitter;
    emitter.freqHz = freqHz;
    emitter.levelDbm = levelDbm;
    return emitter;
}

// Something that goes wrong with a stream under way.
struct FaultCase {
    std::string name;
    std::function<void(sim::Instrument&, sim::Bus&)> strike;
    TqStatus expected = tqConnectionLostErr;

    bool LosesTheLink() const { return expected == tqConnectionLostErr; }
};

class ApiFixture : public BusFixture {
protected:
    static constexpr int SERIAL = 12345678;

    void TearDown() override {
        CloseDevice();
        BusFixture::TearDown();
    }

    // Plugs an instrument with this serial and opens it.
    sim::Instrument& Open(sim::InstrumentOptions options) {
        options.serial = SERIAL;
        options.rejoinTime = std::chrono::milliseconds(10);
        instrument = &Plug(std::move(options));
        OpenDevice();
        return *instrument;
    }
    sim::Instrument& Open(std::vector<sim::Emitter> emitters = {}) {
        sim::InstrumentOptions options;
        options.scene.emitters = std::move(emitters);
        return Open(std::move(options));
    }
    void OpenDevice() { ASSERT_EQ(tqOpenDeviceBySerial(&device, SERIAL), tqNoError); }
    void CloseDevice() {
        if (device >= 0) tqCloseDevice(device);
        device = -1;
    }

    // From here on a time-out is one in its own time, if that is how the fault is noticed.
    void Strike(const FaultCase& fault) {
        if (fault.LosesTheLink()) sim::SetTimeoutSlack({});
        fault.strike(*instrument, bus);
    }

    // Behind a fault that lost the link: without faults and at its first temperature, closed and opened anew, and
    // plugged again if it was unplugged. It kept its supply, and with it what was asked of it and not read.
    void Reopen() {
        instrument->faults().Clear();
        instrument->SetTemperature(sim::InstrumentOptions().temperatureC);
        bus.ClearFaults(*instrument);
        CloseDevice();
        sim::SetTimeoutSlack(TIMEOUT_SLACK);
        bus.Replug(*instrument);  // if it has gone
        OpenDevice();
    }

    sim::Instrument* instrument = nullptr;
    int device = -1;
};

// A fault of the instrument: fault(sim::Faults&).
template <class F>
FaultCase DeviceFault(std::string name, TqStatus expected, F fault) {
    return {std::move(name), [fault](sim::Instrument& instrument, sim::Bus&) { fault(instrument.faults()); }, expected};
}
inline FaultCase BusFault(std::string name, sim::BusFault fault) {
    return {std::move(name), [fault](sim::Instrument& instrument, sim::Bus& bus) { bus.Inject(instrument, fault); }};
}

// Where faults strike, counted from the strike on: packets from 0, transfers on the bus from 1.
struct FaultPlaces {
    std::uint64_t aux = 0;     // aux packet that tells of it
    std::uint64_t wrong = 1;   // aux packets in a row that come without their magic number
    std::uint64_t packet = 0;  // of any kind, not the first of its read
    int read = 1;
    int command = 1;
};

// One of each kind, and those that only one stream can meet.
inline std::vector<FaultCase> FaultCases(const FaultPlaces& at, const std::vector<FaultCase>& others = {}) {
    using enum sim::BusFault::Action;
    using enum sim::BusFault::Match;
    std::vector<FaultCase> cases = {
        DeviceFault("WrongMagic", tqFramingErr,
                    [at](sim::Faults& f) {
                        for (std::uint64_t i = 0; i < at.wrong; i++) f.WrongAuxMagicAt(at.aux + i);
                    }),
        DeviceFault("DataLoss", tqUncalData, [at](sim::Faults& f) { f.DataLossAt(at.aux); }),
        DeviceFault("Overflow", tqADCOverflow, [at](sim::Faults& f) { f.AdcOverflowAt(at.aux); }),
        DeviceFault("TemperatureStep", tqTempDrift, [at](sim::Faults& f) { f.TemperatureStepAt(at.aux, 41.0); }),
        DeviceFault("Silent", tqConnectionLostErr, [at](sim::Faults& f) { f.SilentAt(at.packet); }),
        DeviceFault("Short", tqConnectionLostErr, [at](sim::Faults& f) { f.ShortAt(at.packet); }),
        DeviceFault("Stalled", tqConnectionLostErr, [at](sim::Faults& f) { f.StallAt(at.packet); }),
        BusFault("HangingRead", {hang, bulkIn, at.read}),
        BusFault("ShortRead", {shortTransfer, bulkIn, at.read, 0, 8192}),
        BusFault("RefusedRead", {refuse, bulkIn, at.read, ENOMEM}),
        BusFault("RefusedCommand", {refuse, bulkOut, at.command, EIO}),
        BusFault("StalledCommand", {stall, bulkOut, at.command}),
        BusFault("CutCommand", {shortTransfer, bulkOut, at.command, 0, 1000}),
        BusFault("UnpluggedAtARead", {unplug, bulkIn, at.read}),
        BusFault("UnpluggedAtACommand", {unplug, bulkOut, at.command}),
    };
    cases.insert(cases.end(), others.begin(), others.end());
    return cases;
}

// What the tests of the engines share: a gadget that answers fetch words with packets made to order, so that a sample,
// row or bin in the wrong place shows as a plain inequality, and a device on it.
#pragma once

#include "bus_fixture.h"
#include "device_interface.h"
#include "dsp.h"
#include "thread_support.h"
#include "tq_device.h"
#include "usb_gadget.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

constexpr std::size_t PACKET_BYTES = 8192;
constexpr int PACKET_SAMPLES = 2048;
constexpr int WIRE_OFFSET = 576;  // what the instrument adds to each value
constexpr uint32_t GOOD_MAGIC = 0x41555831;
constexpr uint32_t BAD_MAGIC = 0x31585541;
constexpr uint32_t ADC_OVERFLOW = 0x100;
constexpr uint32_t DATA_LOSS = 0x200;
constexpr float POISON = 1e30f;

// Sample n of all, which carries its number in two times fourteen bits.
inline Ipp16sc Numbered(int64_t n) {
    return {static_cast<int16_t>(n & 0x3FFF), static_cast<int16_t>(n >> 14 & 0x3FFF)};
}
inline int64_t NumberOf(Ipp16sc x) { return x.re + (int64_t{x.im} << 14); }
inline int64_t NumberOf(Ipp32fc x) { return std::lround(x.re * 32768.0f) + (std::lround(x.im * 32768.0f) << 14); }

// I/Q packets by their number: on the wire, with the offset.
using RenderPacket = std::function<void(int64_t packet, Ipp16sc* dst)>;

// Of a sample that depends on its number alone, free of the offset.
inline RenderPacket PerSample(Ipp16sc (*sample)(int64_t n)) {
    return [sample](int64_t packet, Ipp16sc* dst) {
        for (int i = 0; i < PACKET_SAMPLES; i++) {
            const Ipp16sc x = sample(packet * PACKET_SAMPLES + i);
            dst[i] = {static_cast<int16_t>(x.re + WIRE_OFFSET), static_cast<int16_t>(x.im + WIRE_OFFSET)};
        }
    };
}

// Noise of half the range, every packet different.
inline void NoisePacket(int64_t packet, Ipp16sc* dst) {
    constexpr std::size_t TABLE = 1 << 14;
    static const std::vector<Ipp16sc> noise = [] {
        std::mt19937 generator(20);
        const auto next = [&] { return static_cast<int16_t>(static_cast<int16_t>(generator()) / 2); };
        std::vector<Ipp16sc> samples(TABLE + PACKET_SAMPLES);
        for (Ipp16sc& sample : samples) sample = {next(), next()};
        return samples;
    }();
    std::memcpy(dst, noise.data() + static_cast<std::size_t>(packet) * 203 % TABLE, PACKET_BYTES);
    std::memcpy(dst, &packet, sizeof(packet));
}

struct AuxStatus {
    uint32_t magic = GOOD_MAGIC;
    uint32_t flags = 0;
};

// A list of aux packets, and the status that they make of one sweep.
struct StatusCase {
    const char* name;
    std::vector<AuxStatus> aux;
    TqStatus expected;
};

// Understands start, stop and fetch words and nothing else.
class ScriptedStream : public UsbGadget {
public:
    static constexpr int SERIAL = 12345678;
    static constexpr uint64_t FIRST_TICK = 5000000000;  // the main counter in front of all packets

    ScriptedStream() : UsbGadget(UsbGadget::Identity(std::to_string(SERIAL))) {}

    int BulkOut(std::uint8_t, std::span<const std::uint8_t> data) override {
        for (std::size_t at = 0; at < data.size(); at += 4) {
            if (data[at + 3] == 0x30) acquiring = true;
            if (data[at + 3] == 0x32) acquiring = false;
            if (data[at + 3] == 0x31) asked.push_back({data[at], data[at + 1] & 7});
        }
        return static_cast<int>(data.size());
    }

    sim::BulkInResult BulkIn(std::uint8_t, std::span<std::uint8_t> dst) override {
        using Kind = sim::BulkInResult::Kind;
        using namespace std::chrono;
        if (silent) return {Kind::pending, 0, steady_clock::now() + milliseconds(1)};
        if (PacketsUnread() * PACKET_BYTES < dst.size()) return {};
        if (stall) return {Kind::stalled, 0, std::nullopt};
        if (auxPackets >= allowed && acquiring) {
            if (!trickle) return {Kind::pending, 0, steady_clock::now() + milliseconds(1)};
            if (!nextTrickle) nextTrickle = steady_clock::now() + milliseconds(20);
            if (steady_clock::now() < *nextTrickle) return {Kind::pending, 0, nextTrickle};
            nextTrickle.reset();
        }
        for (std::size_t at = 0; at < dst.size(); at += PACKET_BYTES) {
            while (asked.front().iq + asked.front().aux == 0) asked.pop_front();
            if (asked.front().iq > 0) {
                asked.front().iq--;
                render(iqPackets++, reinterpret_cast<Ipp16sc*>(dst.data() + at));
                continue;
            }
            asked.front().aux--;
            AuxData aux = {};
            aux.magicNumber = GOOD_MAGIC;
            SetCounter(aux.counterAtIQLow, aux.counterAtIQHigh, TickOf(auxPackets + 1));
            onAux(auxPackets++, aux);
            std::memcpy(dst.data() + at, &aux, PACKET_BYTES);
        }
        return Done(dst);
    }

    // Aux packets tell these in turn, over and over.
    void AuxInTurn(const std::vector<StatusCase>& cases) {
        std::vector<AuxStatus> turn;
        for (const StatusCase& c : cases) turn.insert(turn.end(), c.aux.begin(), c.aux.end());
        onAux = [turn](int n, AuxData& aux) {
            aux.magicNumber = turn[static_cast<std::size_t>(n) % turn.size()].magic;
            aux.statusFlags = turn[static_cast<std::size_t>(n) % turn.size()].flags;
        };
    }

    // Counter at the first sample behind so many aux packets.
    uint64_t TickOf(int aux) const { return FIRST_TICK + static_cast<uint64_t>(aux) * ticksPerAux; }
    static void SetCounter(uint32_t& low, uint32_t& high, uint64_t ticks) {
        low = static_cast<uint32_t>(ticks);
        high = static_cast<uint32_t>(ticks >> 32);
    }

    std::size_t PacketsUnread() const {
        std::size_t packets = 0;
        for (const Fetch& fetch : asked) packets += static_cast<std::size_t>(fetch.iq + fetch.aux);
        return packets;
    }
    int64_t SamplesSent() const { return iqPackets * PACKET_SAMPLES; }
    bool Acquiring() const { return acquiring; }

    // Set before any traffic.
    RenderPacket render = PerSample(Numbered);
    std::function<void(int, AuxData&)> onAux = [](int, AuxData&) {};
    uint64_t ticksPerAux = 0;

    std::atomic<bool> silent = false;                            // sends nothing
    std::atomic<bool> stall = false;                             // every read fails
    std::atomic<int> allowed = std::numeric_limits<int>::max();  // aux packets, and what is in front, to be handed out
    std::atomic<bool> trickle = false;                           // beyond them, a read every 20 ms until the stop word

private:
    struct Fetch {
        int iq;
        int aux;
    };
    std::deque<Fetch> asked;
    bool acquiring = false;
    std::optional<std::chrono::steady_clock::time_point> nextTrickle;
    int64_t iqPackets = 0;
    int auxPackets = 0;
};

class ScriptedFixture : public BusFixture {
protected:
    void SetUp() override {
        BusFixture::SetUp();
        PlugScripted();
    }
    void TearDown() override {
        device.reset();
        BusFixture::TearDown();
    }

    // A new gadget, which counts from 0, and a device on it.
    void PlugScripted() {
        device.reset();
        bus.Reset();
        scripted = &Plug<ScriptedStream>();
        auto usb = std::make_unique<DeviceInterface>();
        ASSERT_TRUE(usb->AllocateResources(GetUSBDeviceHandleBySerial(ScriptedStream::SERIAL)));
        device = std::make_unique<TqDevice>(std::move(usb));
    }

    // Of sweeps with four aux packets, the first of which tells; sweep(&time) returns its status.
    static const std::vector<StatusCase>& SweepStatusCases() {
        static const std::vector<StatusCase> cases = {
            {"loss outranks overflow", {{GOOD_MAGIC, ADC_OVERFLOW | DATA_LOSS}, {}, {}, {}}, tqUncalData},
            {"flags of a foreign packet", {{BAD_MAGIC, DATA_LOSS}, {}, {}, {}}, tqFramingErr},
            {"overflow", {{GOOD_MAGIC, ADC_OVERFLOW}, {}, {}, {}}, tqADCOverflow},
            {"others only fill up", {{}, {BAD_MAGIC, 0}, {GOOD_MAGIC, ADC_OVERFLOW}, {BAD_MAGIC, 0}}, tqNoError}};
        return cases;
    }
    template <class F>
    void ExpectStatusAndTimeOfSweeps(F sweep) {
        for (const StatusCase& c : SweepStatusCases()) {
            int64_t time = 0;
            EXPECT_EQ(sweep(&time), c.expected) << c.name;
            EXPECT_EQ(time, device->readerGPS.GetLockedIQTime()) << c.name;
            EXPECT_GT(time, 0);
        }
    }

    ScriptedStream* scripted = nullptr;
    std::unique_ptr<TqDevice> device;
};

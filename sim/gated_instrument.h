// An instrument that hands out its stream as slowly as whoever owns it wants, so that a host that is slower than the
// data has all the time that it needs; and, if wanted, with samples of the owner's making. For tests and benchmarks;
// any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#include "sim/instrument.h"

namespace sim {

class GatedInstrument : public Instrument {
public:
    // Reads of this size and more pass the gate, smaller ones go round it.
    static constexpr std::size_t STREAM_READ = std::size_t{1} << 20;

    // How long a read waits at the gate at most. At first twelve of them in line stay below a host's time-out of two
    // seconds. Set before any traffic.
    void SetPatience(std::chrono::milliseconds most) { patience = most; }

    // What stands in place of the model's samples: fills in the samples n, n + 1, ... since the start word, I and Q in
    // turns, without the device's offset. Set before any traffic; reads are then transfers with one aux packet.
    using Samples = std::function<void(std::int64_t n, std::span<std::int16_t> iq)>;
    void SetSamples(Samples own) { samples = std::move(own); }

    using Instrument::Instrument;

    // How many reads may pass without a wait, in all. After a stop word whatever is left passes, until the next start.
    void Allow(std::int64_t reads) { allowed = reads; }
    std::int64_t Passed() const { return passed; }

    int BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> data) override {
        constexpr std::uint8_t START = 0x30, STOP = 0x32;
        for (std::size_t opCode = 3; opCode < data.size(); opCode += 4) {
            if (data[opCode] == START || data[opCode] == STOP) stopped = data[opCode] == STOP;
            if (data[opCode] == START) next = 0;
        }
        return Instrument::BulkOut(endpoint, data);
    }

    BulkInResult BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> dst) override {
        if (dst.size() < STREAM_READ) return Instrument::BulkIn(endpoint, dst);
        const auto now = std::chrono::steady_clock::now();
        if (passed >= allowed && !stopped && now < lastPassed + patience) {
            return {BulkInResult::Kind::pending, 0, now + POLL};
        }
        const BulkInResult result = Instrument::BulkIn(endpoint, dst);
        if (result.kind == BulkInResult::Kind::done) {
            if (samples) Replace(dst.first(result.bytes - PACKET_BYTES));
            ++passed;
            lastPassed = now;
        }
        return result;
    }

private:
    void Replace(std::span<std::uint8_t> dst) {
        constexpr int OFFSET = 576;
        std::vector<std::int16_t> iq(dst.size() / sizeof(std::int16_t));
        samples(next, iq);
        for (std::int16_t& x : iq) x = static_cast<std::int16_t>(x + OFFSET);
        std::memcpy(dst.data(), iq.data(), dst.size());
        next += static_cast<std::int64_t>(iq.size() / 2);
    }

    static constexpr std::chrono::microseconds POLL{200};

    std::atomic<std::int64_t> allowed = 0;
    std::atomic<std::int64_t> passed = 0;
    std::chrono::milliseconds patience{120};
    std::chrono::steady_clock::time_point lastPassed;
    bool stopped = false;
    Samples samples;
    std::int64_t next = 0;  // of them
};

}  // namespace sim

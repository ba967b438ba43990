#include "tq_command.h"

#include "frequency_plan.h"
#include "tq_assert.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numeric>
#include <utility>

static_assert(std::endian::native == std::endian::little, "words go out as they stand in memory");
static_assert(FIR_COEFF_WORDS == 2 * (CORRECTION_TAPS + 1));

namespace {

constexpr uint32_t WAIT_AFTER_START = 80;  // settling counts behind a start

// A tap as the 16 bits of its word. The limits only keep a damaged calibration record from an undefined conversion.
uint16_t TapToWord(float tap) {
    const double scaled = std::floor(static_cast<double>(tap) * 32767.0 + 0.5);
    if (std::isnan(scaled)) return 0;
    return static_cast<uint16_t>(static_cast<int64_t>(std::clamp(scaled, -1e15, 1e15)));
}

}  // namespace

void TqCommand::StartNewCommand() {
    pos = static_cast<int>(cmds.size());
    cmds.resize(cmds.size() + CMD_SIZE_WORDS, CMD_FILL_WORD);
    xferCount.push_back(0);
    auxCount.push_back(0);
}

void TqCommand::AddWords(const void* words, int len) {
    TQ_ASSERT(words != nullptr);
    TQ_ASSERT(len >= 0 && len <= WordsLeftInCommand());
    if (len == 0) return;
    std::memcpy(&cmds[static_cast<size_t>(pos)], words, static_cast<size_t>(len) * sizeof(uint32_t));
    pos += len;
}

void TqCommand::Add(FPGACommand word) { AddWords(&word, 1); }

const uint8_t* TqCommand::GetCommand(int cmd) const {
    TQ_ASSERT(cmd >= 0 && cmd < GetCommandCount());
    return reinterpret_cast<const uint8_t*>(cmds.data()) + static_cast<size_t>(cmd) * CMD_SIZE_BYTES;
}

uint8_t* TqCommand::GetCommand(int cmd) { return const_cast<uint8_t*>(std::as_const(*this).GetCommand(cmd)); }

int TqCommand::GetXferCount(int cmd) const {
    TQ_ASSERT(cmd >= 0 && cmd < GetCommandCount());
    return xferCount[static_cast<size_t>(cmd)];
}

int TqCommand::GetAuxPacketCount(int cmd) const {
    TQ_ASSERT(cmd >= 0 && cmd < GetCommandCount());
    return auxCount[static_cast<size_t>(cmd)];
}

int TqCommand::GetTotalXferCount() const { return std::accumulate(xferCount.begin(), xferCount.end(), 0); }

int TqCommand::GetTotalAuxCount() const { return std::accumulate(auxCount.begin(), auxCount.end(), 0); }

int TqCommand::GetCurrent8kXferCount() const { return xferCount.empty() ? 0 : xferCount.back() + auxCount.back(); }

void TqCommand::AddNop(int count) {
    for (int i = 0; i < count; i++) Add(FPGACommand(OP_NOP));
}

void TqCommand::AddWait(int counts) { Add(FPGACommand(OP_WAIT, static_cast<uint32_t>(counts))); }

void TqCommand::AddStartIQ(int decimation) {
    Add(FPGACommand(OP_START_IQ, static_cast<uint32_t>(decimation)));
    AddWait(WAIT_AFTER_START);
    AddNop(3);
}

void TqCommand::AddStopIQ() { Add(FPGACommand(OP_STOP_IQ)); }

void TqCommand::AddFetchIQ(uint32_t iqPkts, uint32_t auxPkts) {
    TQ_ASSERT(iqPkts <= MAX_FETCH_IQ_PKTS);
    TQ_ASSERT(auxPkts <= MAX_FETCH_AUX_PKTS);
    const uint32_t noIQ = iqPkts == 0 ? 1 : 0;
    Add(FPGACommand(OP_FETCH, iqPkts | auxPkts << 8 | noIQ << 11));
    Add(FPGACommand(OP_FETCH_STROBE, 1));
    AddNop(3);
    xferCount.back() += static_cast<int>(iqPkts);
    auxCount.back() += static_cast<int>(auxPkts);
}

void TqCommand::AddFetchAux(int count) { AddFetchIQ(0, static_cast<uint32_t>(count)); }

void TqCommand::AddFIRCoeffs(const Ipp32fc* coeffs) {
    TQ_ASSERT(WordsLeftInCommand() >= FIR_COEFF_WORDS);
    const auto addTap = [this](int tap, uint16_t re, uint16_t im) {
        Add(FPGACommand(static_cast<uint8_t>(OP_FIR_RE + tap), re));
        Add(FPGACommand(static_cast<uint8_t>(OP_FIR_IM + tap), im));
    };
    for (int k = 0; k < CORRECTION_TAPS; k++) addTap(k, TapToWord(coeffs[k].re), TapToWord(coeffs[k].im));
    addTap(CORRECTION_TAPS, 0, 0);  // the hardware has one more
}

void TqCommand::AddSetExtTriggerEdge(TqTriggerEdge edge) {
    Add(FPGACommand(OP_GPIO_PORT, edge == tqTriggerEdgeFalling ? GPIO_TRIG_FALLING : GPIO_TRIG_RISING));
}

void TqCommand::AddSetPPSOut() { Add(FPGACommand(OP_GPIO_PORT, GPIO_PPS_OUT)); }

void TqCommand::AddSetLogicLowOut() { Add(FPGACommand(OP_GPIO_PORT, GPIO_LOGIC_LOW)); }

void TqCommand::AddSetLogicHighOut() { Add(FPGACommand(OP_GPIO_PORT, GPIO_LOGIC_HIGH)); }

void TqCommand::AddConfigureUARTDirect(int divider) {
    Add(FPGACommand(OP_GPIO_PORT, GPIO_UART | static_cast<uint16_t>(divider - 1)));
}

void TqCommand::AddUARTWriteDirect(uint8_t data) { Add(FPGACommand(OP_UART_WRITE, data)); }

void TqCommand::AddWriteToGPS(const uint32_t* words, int count) {
    for (int i = 0; i < count; i++) {
        Add(FPGACommand(OP_GPS_WRITE_LOW, words[i] & 0xFFFF));
        Add(FPGACommand(OP_GPS_WRITE_HIGH, words[i] >> 16));
    }
}

void TqCommand::AddSetReference(bool extRefEnabled) { Add(FPGACommand(OP_REFERENCE, extRefEnabled ? 0 : 1)); }

void TqCommand::AddSetTimebaseDAC(uint16_t timebaseDAC) { Add(FPGACommand(OP_TIMEBASE_DAC, timebaseDAC)); }

void TqCommand::AddSetGPSTimebaseUpdate(bool enabled) { Add(FPGACommand(OP_GPS_TIMEBASE, enabled ? 1 : 0)); }

void TqCommand::AddBootToRun() { Add(FPGACommand(OP_SYSTEM, SYSTEM_BOOT_TO_RUN)); }

void TqCommand::AddReadFlashPage(uint16_t page) { Add(FPGACommand(OP_SYSTEM, SYSTEM_READ_PAGE | page)); }

void TqCommand::AddEraseFlashPage(uint16_t page) { Add(FPGACommand(OP_SYSTEM, SYSTEM_ERASE_PAGE | page)); }

void TqCommand::AddWriteFlashPage(uint16_t page, const uint8_t* mem) {
    Add(FPGACommand(OP_SYSTEM, SYSTEM_WRITE_PAGE | page));
    AddWords(mem, FLASH_PAGE_BYTES / static_cast<int>(sizeof(uint32_t)));
}

int CommandQueue::Size() {
    Lock guard(lock);
    return blocks;
}

void CommandQueue::AddToQueue(TqCommand& command) {
    Lock guard(lock);
    if (command.GetCommandCount() == 0) return;
    TQ_ASSERT(entries < MAX_COMMANDS);
    q[static_cast<size_t>((first + entries) % MAX_COMMANDS)] = {&command, 0};
    ++entries;
    blocks += command.GetCommandCount();
}

CommandQueue::Link CommandQueue::GetNextCommand() {
    Lock guard(lock);
    TQ_ASSERT(blocks > 0);
    Entry& front = q[static_cast<size_t>(first)];
    TqCommand& command = *front.command;
    const int i = front.next++;
    --blocks;
    if (front.next == command.GetCommandCount()) {
        first = (first + 1) % MAX_COMMANDS;
        --entries;
    }
    return {command.GetCommand(i), command.GetXferCount(i) + command.GetAuxPacketCount(i)};
}

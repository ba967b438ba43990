// The command stream of the instrument: 32-bit words in blocks of exactly 2048 bytes, executed in order, and the count
// of the packets that each block makes the instrument send. Planners and TqDevice build a TqCommand on one thread;
// engines only read it. CommandQueue hands blocks from the thread that starts a sweep to the engine's USB thread.
// No I/O happens here: DeviceInterface sends.
#pragma once

#include "ipps.h"
#include "tq_api.h"
#include "vk_critical_section.h"

#include <array>
#include <cstdint>
#include <vector>

inline constexpr int CMD_SIZE_WORDS = 512;
inline constexpr int CMD_SIZE_BYTES = 2048;
inline constexpr int MAX_FETCH_IQ_PKTS = 255;          // I/Q packets of one fetch
inline constexpr int MAX_FETCH_AUX_PKTS = 4;           // aux packets of one fetch
inline constexpr int FIR_COEFF_WORDS = 64;             // words of AddFIRCoeffs
inline constexpr int FLASH_PAGE_BYTES = 1024;          // payload of AddWriteFlashPage
inline constexpr uint32_t CMD_FILL_WORD = 0x00000001;  // stands in every unused word of a block; not the NOP word

// Operations, bits 24 to 31 of a word. The front-end words (tq720_config.h) use some further ones.
inline constexpr uint8_t OP_NOP = 0x01;
inline constexpr uint8_t OP_WAIT = 0x10;          // payload: count, 24 bits
inline constexpr uint8_t OP_FETCH_STROBE = 0x14;  // payload 1
inline constexpr uint8_t OP_GPIO_PORT = 0x26;     // data8: GPIO_*; data16: UART divider - 1
inline constexpr uint8_t OP_UART_WRITE = 0x27;    // data16: the byte
inline constexpr uint8_t OP_GPS_WRITE_LOW = 0x28;
inline constexpr uint8_t OP_GPS_WRITE_HIGH = 0x29;
inline constexpr uint8_t OP_REFERENCE = 0x2D;     // 0 external, 1 internal
inline constexpr uint8_t OP_TIMEBASE_DAC = 0x2E;  // data16: DAC value
inline constexpr uint8_t OP_GPS_TIMEBASE = 0x2F;  // 1: the firmware steers the timebase from GPS
inline constexpr uint8_t OP_START_IQ = 0x30;      // 0: full band; else 1 + log2 of the hardware decimation
inline constexpr uint8_t OP_FETCH = 0x31;         // bits 0-7 I/Q packets, 8-10 aux packets, 11 no I/Q
inline constexpr uint8_t OP_STOP_IQ = 0x32;
inline constexpr uint8_t OP_FIR_RE = 0x40;  // + tap 0 to 31
inline constexpr uint8_t OP_FIR_IM = 0x60;  // + tap 0 to 31
inline constexpr uint8_t OP_SYSTEM = 0xFF;  // data8: SYSTEM_*

inline constexpr uint32_t GPIO_TRIG_RISING = 0x000000;
inline constexpr uint32_t GPIO_TRIG_FALLING = 0x100000;
inline constexpr uint32_t GPIO_UART = 0x200000;
inline constexpr uint32_t GPIO_LOGIC_LOW = 0x400000;
inline constexpr uint32_t GPIO_LOGIC_HIGH = 0x500000;
inline constexpr uint32_t GPIO_PPS_OUT = 0x600000;

inline constexpr uint32_t SYSTEM_BOOT_TO_RUN = 0xFA0003;
inline constexpr uint32_t SYSTEM_ERASE_PAGE = 0xFC0000;  // data16: page
inline constexpr uint32_t SYSTEM_READ_PAGE = 0xFD0000;   // data16: page
inline constexpr uint32_t SYSTEM_WRITE_PAGE = 0xFE0000;  // data16: page; the page's 256 words follow

// One command word as it goes over the wire, little-endian.
//   offset 0  data16  payload bits 0-15
//   offset 2  data8   payload bits 16-23
//   offset 3  opCode  operation
struct FPGACommand {
    explicit FPGACommand(uint8_t op) { SetOpCode(op); }
    FPGACommand(uint8_t op, uint32_t payload) {
        SetOpCode(op);
        SetPayload(payload);
    }

    void SetOpCode(uint8_t op) { opCode = op; }
    // Bits 24-31 of `payload` are dropped.
    void SetPayload(uint32_t payload) {
        data16 = static_cast<uint16_t>(payload);
        data8 = static_cast<uint8_t>(payload >> 16);
    }

    uint16_t data16 = 0;
    uint8_t data8 = 0;
    uint8_t opCode = 0;
};
static_assert(sizeof(FPGACommand) == 4);

// A list of command blocks under construction, or finished. Only the last block is written, and no builder ever opens
// a block by itself: a planner that writes a long list tests WordsLeftInCommand(). A builder that is called without
// room, or without a block, is a mistake of the caller and asserts. Copied by value into engines. Block memory moves
// when a block is added, so addresses are taken after the last StartNewCommand().
class TqCommand {
public:
    // Opens a new last block, filled with CMD_FILL_WORD.
    void StartNewCommand();
    // Appends `len` words.
    void AddWords(const void* words, int len);

    int WordsLeftInCommand() const { return static_cast<int>(cmds.size()) - pos; }
    int GetCommandCount() const { return static_cast<int>(xferCount.size()); }
    // CMD_SIZE_BYTES bytes of block `cmd`, 0 to GetCommandCount() - 1.
    uint8_t* GetCommand(int cmd);
    const uint8_t* GetCommand(int cmd) const;
    // I/Q packets, aux packets, that block `cmd` requests.
    int GetXferCount(int cmd) const;
    int GetAuxPacketCount(int cmd) const;
    // The same over all blocks.
    int GetTotalXferCount() const;
    int GetTotalAuxCount() const;
    // I/Q plus aux packets that the last block requests so far; 0 without a block.
    int GetCurrent8kXferCount() const;

    // Acquisition.
    void AddNop(int count);           // none if `count` is not positive
    void AddWait(int counts);         // 24 bits
    void AddStartIQ(int decimation);  // the code of OP_START_IQ, not a ratio; 5 words
    void AddStopIQ();
    void AddFetchIQ(uint32_t iqPkts, uint32_t auxPkts);  // at most MAX_FETCH_*; answered I/Q first; 5 words
    void AddFetchAux() { AddFetchIQ(0, 4); }             // one read unit of 32768 bytes
    void AddFetchAux(int count);                         // aux packets alone
    void AddFIRCoeffs(const Ipp32fc* coeffs);            // CORRECTION_TAPS taps; FIR_COEFF_WORDS words

    // Side ports.
    void AddSetExtTriggerEdge(TqTriggerEdge edge);  // makes the GPIO port the trigger input
    void AddSetPPSOut();
    void AddSetLogicLowOut();
    void AddSetLogicHighOut();
    void AddConfigureUARTDirect(int divider);  // 1 to 65536
    void AddUARTWriteDirect(uint8_t data);
    void AddWriteToGPS(const uint32_t* words, int count);  // 2 * `count` words, so at most 256 to a block

    // Timebase.
    void AddSetReference(bool extRefEnabled);
    void AddSetTimebaseDAC(uint16_t timebaseDAC);
    void AddSetGPSTimebaseUpdate(bool enabled);

    // Boot and flash.
    void AddBootToRun();
    void AddReadFlashPage(uint16_t page);
    void AddEraseFlashPage(uint16_t page);
    void AddWriteFlashPage(uint16_t page, const uint8_t* mem);  // FLASH_PAGE_BYTES bytes; 257 words

    std::vector<uint32_t> cmds;  // all blocks back to back
    int pos = 0;                 // index in `cmds` of the next word to write
    std::vector<int> xferCount;  // per block: I/Q packets
    std::vector<int> auxCount;   // per block: aux packets

private:
    void Add(FPGACommand word);
};

// Blocks ready to send, first in, first out. Each member takes the lock; Size() and GetNextCommand() belong to the one
// consumer, AddToQueue() to the producer. Never allocates.
class CommandQueue {
public:
    static constexpr int MAX_COMMANDS = 16;  // of which blocks can wait at once

    struct Link {
        uint8_t* cmdMemory;  // the block, inside a TqCommand that outlives the entry and gets no further block
        int num8kPkts;       // I/Q plus aux packets that it requests
    };

    int Size();
    // Appends all blocks of `command`, in order.
    void AddToQueue(TqCommand& command);
    // Removes and returns the first entry. The caller has seen Size() > 0.
    Link GetNextCommand();

private:
    // A command of which blocks wait.
    struct Entry {
        TqCommand* command = nullptr;
        int next = 0;  // block
    };

    CriticalSection lock;
    std::array<Entry, MAX_COMMANDS> q TQ_GUARDED_BY(lock);  // a ring
    int first TQ_GUARDED_BY(lock) = 0;                      // entry
    int entries TQ_GUARDED_BY(lock) = 0;
    int blocks TQ_GUARDED_BY(lock) = 0;  // that wait
};

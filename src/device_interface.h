// DeviceInterface, the instrument as the rest of the library sees it: transfer slots, one sticky transfer status, flash
// pages, and the calibration record in RAM. A TqDevice owns one; the boot family and the boot-to-run sequence have
// their own. Used by the thread that configures and by one engine's USB thread at a time, never both in the same slot.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "backend_usb.h"
#include "tq_api.h"
#include "tq_command.h"
#include "tq_correction_def.h"

inline constexpr int XFER_UNIT_BYTES = 32768;  // reads of the data endpoint are whole units of four packets
inline constexpr int FLASH_READ_PAGES = 32;    // pages of FLASH_PAGE_BYTES that one read returns, ...
inline constexpr int FLASH_READ_BYTES = FLASH_READ_PAGES * FLASH_PAGE_BYTES;
inline constexpr int FLASH_ERASE_PAGES = 256;  // ... and that one erase clears
static_assert(FLASH_READ_BYTES == XFER_UNIT_BYTES);

class DeviceInterface {
public:
    using SlotArray = std::array<std::unique_ptr<USBBulkTransfer>, USB_XFER_SLOTS>;

    DeviceInterface();
    ~DeviceInterface();  // disconnects; no transfer is in flight
    DeviceInterface(const DeviceInterface&) = delete;
    DeviceInterface& operator=(const DeviceInterface&) = delete;

    // Attaches to an open device: claims it, makes the slots, marks its serial number as open. True: the handle now
    // belongs to this object. False: the handle is null, this object is attached already, or another program has
    // claimed the instrument. May throw std::bad_alloc; then, too, the handle is still the caller's, and but for its
    // claim nothing has changed.
    bool AllocateResources(DeviceHandle handle);

    // Brings the instrument from either program to its run program, with the calibration record in calMem and the
    // data stream aligned. Blocks: well under a second with a cached record, 13 s and more through the boot program.
    // On failure the object is detached:
    //   tqDeviceNotFoundErr  not attached to the machine, or another program has claimed it: ownedElsewhere
    //   tqBootErr            did not reach its run program
    //   tqConnectionLostErr  flash not readable, or no aligned stream; in the latter case the instrument was restarted
    //   tqAllocationErr      no memory for the slots
    TqStatus Connect(int targetSerial);

    // Attaches to an instrument in its boot program. Blocks while that starts up, 10 s at most. On failure
    // (tqDeviceNotFoundErr, tqAllocationErr) the handle stays with the caller.
    TqStatus ConnectBoot(DeviceHandle handle);

    // Detaches: frees the slots, gives back interface, handle and serial number. calMem stays. Harmless when detached.
    void Disconnect();

    // Restarts the instrument and waits 3 s for it; it then runs its boot program and this handle is dead. False: not
    // connected.
    bool PresetDevice();

    // Brings the host's reads and the instrument's packets into step. False: the instrument does not answer, or does
    // not fall silent within 5 s. Clears the transfer status behind its reads, whose time-outs are its signal.
    bool AlignXfers();

    bool IsConnected() const { return deviceConnected; }
    int SerialNumber() const { return serialNumber; }
    TqStatus TransferStatus() const { return transferStatus; }
    void ClearTransferStatus() { transferStatus = tqNoError; }

    // calMem as the record that it holds.
    const TQ720CalData* CalData() const;

    // Sends the instrument to its run program. tqNoError whatever becomes of it: WaitForBoot finds out.
    TqStatus BootToRun();

    // Flash, under the boot program only. A write takes FLASH_PAGE_BYTES (and 16 ms), a read gives FLASH_READ_BYTES
    // (100 ms), an erase clears FLASH_ERASE_PAGES (2 s). All return the transfer status.
    TqStatus WriteFlashPage(uint16_t page, const uint8_t* mem);
    TqStatus ReadFlashPage(uint16_t page, uint8_t* mem);
    TqStatus EraseFlashPage(uint16_t page);

    TqStatus SetFanSetPoint(float setPoint);  // [degrees Celsius]; the transfer status

    // One slot each. A read is begun before the command that feeds it, and slots are finished in the order in which
    // they were begun. A failed or short transfer leaves tqConnectionLostErr in the transfer status. From then on
    // nothing is begun any more, since each transfer would wait for its time-out: Finish answers at once, and says so.
    //   slot  0 to USB_XFER_SLOTS - 1
    //   data  USB_CMD_SIZE_BYTES bytes
    //   len   [bytes], at most USBBulkTransfer::MAX_XFER_SIZE
    void BeginCommandXfer(int slot, const uint8_t* data);
    DMAXferStatus FinishCommandXfer(int slot);
    void BeginDataXfer(int slot, int len, int timeoutMS);
    DMAXferStatus FinishDataXfer(int slot);

    // While one lives, transfers are begun over a lost link, too: for the words that leave an instrument quiet, and the
    // reads ahead of them. One failed read may have marked a live link. When such a command fails as well nobody
    // listens, and no further one is begun. One at a time.
    class LastWords {
    public:
        explicit LastWords(DeviceInterface& device) : iface(device) { iface.lastWords = true; }
        ~LastWords() { iface.lastWords = false; }
        LastWords(const LastWords&) = delete;
        LastWords& operator=(const LastWords&) = delete;

    private:
        DeviceInterface& iface;
    };

    // Begin and finish in one call.
    DMAXferStatus FullCommandXfer(int slot, const uint8_t* data);
    DMAXferStatus FullDataXfer(int slot, int len, int timeoutMs);

    // Sends all blocks in order, one at a time, on USB_CMD_SLOT. False, at once: the transfer status is negative.
    bool SendCommands(TqCommand& cmdList);

    std::vector<uint8_t> calMem;   // sizeof(TQ720CalData) bytes; all 0xFF: no calibration
    bool checkSumInvalid = false;  // the record in calMem failed its validation
    DeviceHandle usbHandle = nullptr;
    bool deviceConnected = false;
    bool ownedElsewhere = false;  // the last claim found that another handle has the instrument
    int serialNumber = -1;
    SlotArray cmdXfers;
    SlotArray dataXfers;
    std::atomic<TqStatus> transferStatus = tqNoError;  // tqNoError, or the first failure

private:
    TqStatus ConnectAttached(int targetSerial);
    bool Claim(DeviceHandle handle);
    int Align();
    bool LoadCalibration();
    bool GetCachedCalibration(int serial);
    void ValidateCalibration();
    bool MayBegin() const;
    static USBBulkTransfer& Slot(SlotArray& slots, int slot);
    DMAXferStatus FinishXfer(USBBulkTransfer& xfer);

    std::atomic<bool> lastWords = false;
    std::atomic<bool> unheard = false;  // last words have failed
};

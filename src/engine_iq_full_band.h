// EngineIQFullBand takes service captures of the whole converter band: one block of samples as the converter gives
// them, without correction, filter or aux packet. TqDevice owns it during tqAdminGetFullBandIQ; it works on the
// caller's thread.
#pragma once

#include "tq_api.h"
#include "tq_command.h"

class DeviceInterface;

class EngineIQFullBand {
public:
    // Copies the plan: one block that tunes, starts, and fetches one read unit of I/Q packets. Sends nothing. Throws
    // std::bad_alloc.
    EngineIQFullBand(DeviceInterface& interface, const TqCommand& captureCommands);

    // Takes one capture. Blocks until it has come, 2 s at most a transfer. The transfer status; when that is negative,
    // iq holds what stood in the transfer's buffer before.
    //   iq  out, TQ_FULL_BAND_SAMPLES pairs of I and Q, relative to full scale
    TqStatus GetIQ(float* iq);

private:
    DeviceInterface& iface;
    TqCommand commands;
};

#include "engine_iq_full_band.h"

#include "device_interface.h"
#include "dsp.h"
#include "tq_api_admin.h"
#include "tq_assert.h"

namespace {
constexpr int READ_PKTS = 4;  // of 8192 bytes, XFER_UNIT_BYTES
}  // namespace

static_assert(TQ_FULL_BAND_SAMPLES * sizeof(Ipp16sc) == XFER_UNIT_BYTES);

EngineIQFullBand::EngineIQFullBand(DeviceInterface& interface, const TqCommand& captureCommands)
    : iface(interface), commands(captureCommands) {
    TQ_ASSERT(commands.GetTotalXferCount() == READ_PKTS && commands.GetTotalAuxCount() == 0);
}

TqStatus EngineIQFullBand::GetIQ(float* iq) {
    iface.BeginDataXfer(0, XFER_UNIT_BYTES, USBBulkTransfer::DMA_TIMEOUT);
    iface.SendCommands(commands);
    const DMAXferStatus xfer = iface.FinishDataXfer(0);
    DSP::Convert_16sc32fc(reinterpret_cast<const Ipp16sc*>(xfer.p), reinterpret_cast<Ipp32fc*>(iq),
                          TQ_FULL_BAND_SAMPLES);
    return iface.TransferStatus();
}

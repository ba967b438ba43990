#include "circular_buffer.h"

#include "dsp.h"
#include "tq_assert.h"
#include "tq_lib.h"

#include <algorithm>
#include <cstring>

void IQCircularBuffer::Resize(int size, TqDataType dataType) {
    TQ_ASSERT(size > 0);
    bufDataType = dataType;
    bytesPerSample = GetDataTypeSize(dataType);
    bufferSizeSamples = static_cast<uint64_t>(size);
    bufferSizeBytes = bufferSizeSamples * static_cast<uint64_t>(bytesPerSample);
    buf.resize(bufferSizeBytes);
    const FairLock held(lock);
    triggerBuffer.reserve(MAX_TRIGGERS);
    Empty();
    sampleLoss = 0;
}

void IQCircularBuffer::Clear() {
    const FairLock held(lock);
    Empty();
    sampleLoss = 0;
}

void IQCircularBuffer::Empty() {
    dataInBufSamples = 0;
    write = read = 0;
    triggerBuffer.clear();
}

void IQCircularBuffer::Drop() {
    Empty();
    sampleLoss = 1;
}

void IQCircularBuffer::Append(const void* src, int count, const double* triggers, int triggerCount, uint64_t t) {
    const FairLock held(lock);
    if (static_cast<uint64_t>(count) + dataInBufSamples >= bufferSizeSamples) Drop();
    Store(src, count, triggers, triggerCount, t);
}

void IQCircularBuffer::AppendAfterGap(const void* src, int count, const double* triggers, int triggerCount,
                                      uint64_t t) {
    const FairLock held(lock);
    Drop();
    Store(src, count, triggers, triggerCount, t);
}

void IQCircularBuffer::Store(const void* src, int count, const double* triggers, int triggerCount, uint64_t t) {
    TQ_ASSERT(count >= 0 && static_cast<uint64_t>(count) < bufferSizeSamples);
    const uint64_t bytes = static_cast<uint64_t>(count) * static_cast<uint64_t>(bytesPerSample);
    const uint64_t untilEnd = std::min(bytes, bufferSizeBytes - write);
    const auto* const from = static_cast<const uint8_t*>(src);
    if (bytes > 0) {  // a block of none may come with a null pointer
        std::memcpy(buf.data() + write, from, untilEnd);
        std::memcpy(buf.data(), from + untilEnd, bytes - untilEnd);
    }
    write = (write + bytes) % bufferSizeBytes;

    // A position beyond a whole ring is no trigger of this stream, and would never be taken out.
    const auto before = static_cast<double>(dataInBufSamples);
    for (int i = 0; i < triggerCount; i++) {
        const bool inReach = triggers[i] < static_cast<double>(bufferSizeSamples);
        if (inReach && triggerBuffer.size() < MAX_TRIGGERS) triggerBuffer.push_back(triggers[i] + before);
    }

    // Each block renews the time, so that the roundings of the reads don't add up.
    time = t - static_cast<uint64_t>(DSP::RoundToInt64(before * nsPerSample));
    dataInBufSamples += static_cast<uint64_t>(count);
}

void IQCircularBuffer::Read(void* dst, int count, int& samplesReturned, double* trigPtr, int trigPtrLen,
                            int& trigReturned, uint64_t& t, TqDataType dataType) {
    const FairLock held(lock);
    samplesReturned = trigReturned = 0;
    if (count < 1) return;

    const uint64_t n = std::min<uint64_t>(static_cast<uint64_t>(count), dataInBufSamples);
    const auto sampleBytes = static_cast<uint64_t>(bytesPerSample);
    const uint64_t untilEnd = std::min(n, (bufferSizeBytes - read) / sampleBytes);
    CopyOut(read, dst, untilEnd, dataType);
    CopyOut(0, static_cast<uint8_t*>(dst) + untilEnd * static_cast<uint64_t>(GetDataTypeSize(dataType)), n - untilEnd,
            dataType);
    samplesReturned = static_cast<int>(n);

    const auto taken = static_cast<double>(n);
    const auto behind = std::ranges::find_if(triggerBuffer, [taken](double position) { return position >= taken; });
    trigReturned = std::min(static_cast<int>(behind - triggerBuffer.begin()), std::max(trigPtrLen, 0));
    std::copy_n(triggerBuffer.begin(), trigReturned, trigPtr);
    triggerBuffer.erase(triggerBuffer.begin(), behind);
    for (double& position : triggerBuffer) position -= taken;

    dataInBufSamples -= n;
    read = (read + n * sampleBytes) % bufferSizeBytes;
    t = time;
    time += static_cast<uint64_t>(DSP::RoundToInt64(taken * nsPerSample));
}

// `samples` samples from the byte offset on, which don't run past the end of the ring.
void IQCircularBuffer::CopyOut(uint64_t offset, void* dst, uint64_t samples, TqDataType dataType) const {
    if (samples == 0) return;
    const uint8_t* const src = buf.data() + offset;
    const int len = static_cast<int>(samples);
    if (dataType == bufDataType) {
        std::memcpy(dst, src, samples * static_cast<uint64_t>(bytesPerSample));
    } else if (dataType == tqDataType16sc) {
        DSP::Convert_32fc16sc(reinterpret_cast<const Ipp32fc*>(src), static_cast<Ipp16sc*>(dst), len);
    } else {
        DSP::Convert_16sc32fc(reinterpret_cast<const Ipp16sc*>(src), static_cast<Ipp32fc*>(dst), len);
    }
}

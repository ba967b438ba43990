// IQCircularBuffer, the queue between the worker of EngineIQ and tqGetIQ: samples in a ring, with them the positions of
// external triggers and the time of the oldest sample. When it would fill up it drops all that it holds and says so,
// so that what follows a gap is in one piece. The worker appends and the client's thread reads, each one thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tq_api.h"
#include "vk_critical_section.h"

class IQCircularBuffer {
public:
    // An instrument reports one trigger a transfer, and half a second has some 250 of these.
    static constexpr std::size_t MAX_TRIGGERS = 1024;

    // The memory of the ring; it outlives this object.
    explicit IQCircularBuffer(std::vector<uint8_t>& memory) : buf(memory) {}
    IQCircularBuffer(const IQCircularBuffer&) = delete;
    IQCircularBuffer& operator=(const IQCircularBuffer&) = delete;

    // Sizes the memory and empties the ring. Before any thread runs. May throw std::bad_alloc.
    //   size      [samples]; the ring holds one less
    //   dataType  of the stored samples
    void Resize(int size, TqDataType dataType);

    // Empties the ring and forgets a loss.
    void Clear();

    // [1/s], above 0. Before any thread runs.
    void SetSampleRate(double sampleRate) { nsPerSample = 1e9 / sampleRate; }

    uint64_t SamplesInBuffer() const { return dataInBufSamples; }

    // 1 when samples were dropped since the last call, else 0.
    int SampleLoss() { return sampleLoss.exchange(0); }

    // Stores a block. One that would fill the ring first drops all that is there. Doesn't allocate.
    //   src       count samples of the stored type, fewer than the ring's size
    //   triggers  triggerCount positions, ascending, in samples from src on; they may lie behind the block. Those that
    //             find MAX_TRIGGERS waiting are lost
    //   t         time of src[0], [ns] since the epoch
    void Append(const void* src, int count, const double* triggers, int triggerCount, uint64_t t);

    // The same for a block in front of which samples went missing: all that the ring holds is dropped.
    void AppendAfterGap(const void* src, int count, const double* triggers, int triggerCount, uint64_t t);

    // Takes the oldest samples out, at most count, without waiting.
    //   dst              out, samplesReturned samples of dataType
    //   trigPtr          out, trigReturned <= trigPtrLen positions in dst; triggers beyond its room are lost
    //   t                out, time of dst[0], or of the next sample if there is none; not written if count < 1
    void Read(void* dst, int count, int& samplesReturned, double* trigPtr, int trigPtrLen, int& trigReturned,
              uint64_t& t, TqDataType dataType);

private:
    void Empty() TQ_REQUIRES(lock);
    void Drop() TQ_REQUIRES(lock);
    void Store(const void* src, int count, const double* triggers, int triggerCount, uint64_t t) TQ_REQUIRES(lock);
    void CopyOut(uint64_t offset, void* dst, uint64_t samples, TqDataType dataType) const TQ_REQUIRES(lock);

    // Guards what follows, across copies and conversions; fair, since a reader takes piece after piece. The two atomics
    // are written under it and read without.
    FairSection lock;
    TqDataType bufDataType = tqDataType16sc;  // of the stored samples; this and the sizes change in Resize alone
    int bytesPerSample = 4;
    std::vector<uint8_t>& buf;
    uint64_t bufferSizeBytes = 0;
    uint64_t bufferSizeSamples = 0;
    double nsPerSample = 0.0;
    std::atomic<uint64_t> dataInBufSamples = 0;
    std::atomic<int> sampleLoss = 0;
    uint64_t write TQ_GUARDED_BY(lock) = 0;                 // byte offset of the next sample to store
    uint64_t read TQ_GUARDED_BY(lock) = 0;                  // byte offset of the oldest sample
    std::vector<double> triggerBuffer TQ_GUARDED_BY(lock);  // in samples from `read` on, ascending; never grows
    uint64_t time TQ_GUARDED_BY(lock) = 0;                  // of the sample at `read`, [ns] since the epoch
};

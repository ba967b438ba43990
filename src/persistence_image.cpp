#include "persistence_image.h"

#include "dsp.h"
#include "ipps.h"
#include "real_time_pixel_functions.h"
#include "tq_assert.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float LN_TO_DB = 4.3429446f;   // 10 / ln(10)
constexpr float FULL_SCALE_MV = 223.6f;  // 0 dBm at 50 ohms
constexpr double ALPHA_FADE = 0.92;      // a frame
constexpr int BLOCK_VALUES = 32768;      // 128 KiB, and as much of levels: measured best from 8192 to 131072
constexpr int CHUNK_VALUES = 2048;       // what the passes of a conversion leave to each other in the first cache
constexpr int COLUMNS_AT_A_TIME = 16;    // 16 KiB of counters
constexpr int LEVEL_MAP_SLACK = 64;      // the level mapping writes beyond the length

}  // namespace

RealTimeScale::RealTimeScale(TqScale unit, float coarseCorrection)
    : scale(unit),
      correction(unit == tqScaleLin ? static_cast<float>(std::pow(10.0, coarseCorrection * 0.05)) : coarseCorrection) {}

void RealTimeScale::Convert(float* values, int len) const {
    if (scale == tqScaleLog) {
        ippsLn_32f(values, values, len);
        ippsMulC_32f_I(LN_TO_DB, values, len);
        ippsAddC_32f_I(correction, values, len);
    } else if (scale == tqScaleLin) {
        ippsSqrt_32f(values, values, len);
        ippsMulC_32f_I(FULL_SCALE_MV, values, len);
        ippsMulC_32f_I(correction, values, len);
    }
}

PersistenceImage::PersistenceImage(const TqRealTimeSettings& settings, int binning, const RealTimeScale& toScale)
    : scale(toScale),
      frameHeightDB(static_cast<float>(settings.frameHeightDB)),
      frameRef(static_cast<float>(settings.frameRef)),
      frameWidth(settings.frameWidth),
      freqBinning(binning),
      sweepSize(settings.sweepSize),
      imagePixels(settings.frameWidth * HEIGHT),
      rowsPerBlock(std::max(1, BLOCK_VALUES / settings.sweepSize)) {
    TQ_ASSERT(sweepSize == frameWidth * freqBinning && settings.frameHeight == HEIGHT);
    const int64_t blockValues = int64_t{rowsPerBlock} * sweepSize + LEVEL_MAP_SLACK;
    block.resize(blockValues);
    levels.resize(blockValues);
    ippsZero_32f(block.data(), static_cast<int>(blockValues));
    ippsZero_32s(levels.data(), static_cast<int>(blockValues));
    for (DSP::Vector<int>& frame : frames) {
        frame.resize(imagePixels);
        ippsZero_32s(frame.data(), imagePixels);
    }
    workFrame.resize(imagePixels);
    ippsZero_32s(workFrame.data(), imagePixels);
}

void PersistenceImage::AddSpectrum(const float* power) {
    ippsCopy_32f(power, block.data() + int64_t{rows} * sweepSize, sweepSize);
    if (++rows == rowsPerBlock) CountBlock();
}

// Under tqScaleFullScale no level is mapped, and all hits fall on level 0.
void PersistenceImage::MapLevels() {
    if (scale.scale == tqScaleFullScale) return;
    const auto toLevels = scale.scale == tqScaleLin ? sse41MagToPixel
                          : DSP::AVX2Supported()    ? avx2LogToPixel
                                                    : sse41LogToPixel;
    const int count = rows * sweepSize;
    for (int at = 0; at < count; at += CHUNK_VALUES) {
        const int len = std::min(CHUNK_VALUES, count - at);
        scale.Convert(block.data() + at, len);
        toLevels(block.data() + at, levels.data() + at, len, frameHeightDB, frameRef);
    }
}

// Neighbouring columns take turns, since a counter that is raised twice in a row has to wait for itself.
void PersistenceImage::CountBlock() {
    MapLevels();
    int* const frame = frames[static_cast<std::size_t>(imageIndex)].data();
    for (int first = 0; first < frameWidth; first += COLUMNS_AT_A_TIME) {
        const int columns = std::min(COLUMNS_AT_A_TIME, frameWidth - first);
        for (int row = 0; row < rows; row++) {
            const int* const hits = levels.data() + int64_t{row} * sweepSize + first * freqBinning;
            for (int bin = 0; bin < freqBinning; bin++) {
                int* counters = frame + first * HEIGHT;
                const int* hit = hits + bin;
                for (const int* const end = hit + columns * freqBinning; hit != end; hit += freqBinning) {
                    counters[*hit]++;
                    counters += HEIGHT;
                }
            }
        }
    }
    rows = 0;
}

void PersistenceImage::FinishFrame(int* counts, const float* prevAlpha, float* alpha) {
    CountBlock();
    const int* const frame = frames[static_cast<std::size_t>(imageIndex)].data();
    imageIndex = (imageIndex + 1) % FRAMES_STORED;
    int* const oldest = frames[static_cast<std::size_t>(imageIndex)].data();  // leaves the window, and is next in hand

    auto* const sum = reinterpret_cast<Ipp32u*>(workFrame.data());
    ippsAdd_32u(reinterpret_cast<const Ipp32u*>(frame), sum, sum, imagePixels);
    ippsSub_32s_Sfs(oldest, workFrame.data(), workFrame.data(), imagePixels, 0);
    ippsZero_32s(oldest, imagePixels);
    ippsCopy_32s(workFrame.data(), counts, imagePixels);

    for (int i = 0; i < imagePixels; i++) {
        const auto faded = static_cast<float>(static_cast<double>(prevAlpha[i]) * ALPHA_FADE);
        alpha[i] = frame[i] > 0 ? 1.0f : counts[i] != 0 ? faded : 0.0f;
    }
}

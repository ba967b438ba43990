// PersistenceImage makes the persistence display out of spectra: how often each level was hit at each frequency over
// the last 39 frames, and an alpha that fades where hits stay away. EngineRealTime owns one, on its accumulation
// thread alone; RealTimeScale it also uses for the sweeps.
//
// An image is stored column by column, a column being HEIGHT levels from the lowest up. A column takes `freqBinning`
// neighbouring bins of the spectra.
#pragma once

#include <array>

#include "dsp_vector.h"
#include "tq_settings.h"

// From linear power, relative to full scale, to the unit of the client's scale.
struct RealTimeScale {
    TqScale scale;
    float correction;  // tqScaleLog: [dB] to add; tqScaleLin: factor

    //   coarseCorrection  of full scale, to dBm, [dB]
    RealTimeScale(TqScale unit, float coarseCorrection);

    // In place, to [dBm] or [mV]; tqScaleFullScale stays what it is. Zero power is minus infinity dBm.
    void Convert(float* values, int len) const;
};

class PersistenceImage {
public:
    static constexpr int HEIGHT = 256;
    static constexpr int FRAMES_STORED = 40;  // one more than the window holds

    // Allocates all that it needs.
    //   settings  scale, frameRef, frameHeightDB, frameWidth, sweepSize
    //   toScale   the unit of the levels
    PersistenceImage(const TqRealTimeSettings& settings, int freqBinning, const RealTimeScale& toScale);
    PersistenceImage(const PersistenceImage&) = delete;
    PersistenceImage& operator=(const PersistenceImage&) = delete;

    // Adds a spectrum to the frame in hand.
    //   power  sweepSize values, linear
    void AddSpectrum(const float* power);

    // Finishes the frame in hand and begins the next. Images have frameWidth * HEIGHT values.
    //   counts     out, hits over the last 39 frames, this one included
    //   prevAlpha  what `alpha` was a frame ago; zeros at first
    //   alpha      out, 1.0 where this frame hit; elsewhere a fading rest while hits of the window remain, then 0.0
    void FinishFrame(int* counts, const float* prevAlpha, float* alpha);

private:
    void CountBlock();
    void MapLevels();

    const RealTimeScale scale;
    const float frameHeightDB;
    const float frameRef;
    const int frameWidth;
    const int freqBinning;
    const int sweepSize;
    const int imagePixels;
    const int rowsPerBlock;

    // Spectra are counted in blocks that the caches hold: rows of a block, and their levels.
    DSP::Vector<float> block;
    DSP::Vector<int> levels;
    int rows = 0;

    std::array<DSP::Vector<int>, FRAMES_STORED> frames;  // hits of each frame alone
    DSP::Vector<int> workFrame;                          // sum of the window
    int imageIndex = 0;                                  // of the frame in hand
};

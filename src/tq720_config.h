// Turns a tune into the command words that program the RF front end and its synthesiser, and holds the start-up,
// standby and wake-up sequences. Used by TqDevice and the planners on the configuring thread. Each member fills a
// caller's array and returns the number of words, which then go through TqCommand::AddWords. No I/O.
#pragma once

#include <cstdint>

inline constexpr int TQ720_CONFIG_MAX_WORDS = 227;  // room that any member of Tq720Config needs

// The 24-bit payload of the RF configuration word: band select, supply and mixer control for `band`, 0 to 14, and the
// attenuation `atten` in dB, 0 to 31.
uint32_t GetRFConfigWordFromBandAtten(int band, int atten);

class Tq720Config {
public:
    // First bring-up after connection: 227 words.
    int Initialize(uint32_t* buffer);
    // Standby: 1 word.
    int PowerDown(uint32_t* buffer);
    // Wake from standby: 117 words.
    int ReInitialize(uint32_t* buffer);

    // One tune: 24 words, 25 above 5.43 GHz, where the LO leaves the synthesiser by port B.
    //   LOFreq       [Hz]
    //   RFFreq       [Hz], selects the band
    //   roughAtten   TqCorrections::GetRoughGain of the LO step
    //   atten        [dB], 0 to 30 in steps of 5
    //   IQTune960k   digital tune in ticks of 960 kHz
    // Any argument gives well-formed words: what a field cannot carry is limited to the field.
    int Configure(uint32_t* buffer, double LOFreq, double RFFreq, int roughAtten, int atten, int IQTune960k);

    double VCOFreq = 1.2288e10;  // of the last Configure, [Hz]
    int VCOFreqDivider = 0;      // of the last Configure

private:
    int GenerateVCOSettings(uint32_t* settingBuf, bool LOPortB);
    int InitializeVCO(uint32_t* settingBuf);
};

/*
 * Listens to a frequency for some seconds and writes what it hears to a WAV file.
 *
 *     listen FILE.wav [FREQUENCY_HZ [AM|FM|USB|LSB|CW [SECONDS]]]
 */
#include <math.h>
#include <sndfile.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tq_api.h"

#define RATE 30000
#define BLOCK 1000  /* samples of one call */
#define VOLUME 0.5f /* full modulation lies at 1 or a little above */

static const char* const TYPES[] = {"AM", "FM", "USB", "LSB", "CW"}; /* in the order of TqAudioType */
static const double CHANNEL_HZ[] = {10e3, 200e3, 6e3, 6e3, 2e3};     /* around the centre, which lies on the carrier */

static void Check(TqStatus status, const char* call) {
    if (status != tqNoError) fprintf(stderr, "%s: %s\n", call, tqGetErrorString(status));
    if (status < tqNoError) exit(EXIT_FAILURE);
}

int main(int argc, char** argv) {
    static float audio[BLOCK];
    const double centerHz = argc > 2 ? atof(argv[2]) : 97.1e6;
    const char* const name = argc > 3 ? argv[3] : "FM";
    const double seconds = argc > 4 ? atof(argv[4]) : 5.0;
    SF_INFO info = {.samplerate = RATE, .channels = 1, .format = SF_FORMAT_WAV | SF_FORMAT_PCM_16};
    SNDFILE* wav;
    double power = 0.0;
    int device, type = 0;

    while (type <= tqAudioTypeCW && strcmp(name, TYPES[type]) != 0) type++;
    if (argc < 2 || type > tqAudioTypeCW) {
        fprintf(stderr, "usage: %s FILE.wav [FREQUENCY_HZ [AM|FM|USB|LSB|CW [SECONDS]]]\n", argv[0]);
        return EXIT_FAILURE;
    }
    Check(tqOpenDevice(&device), "tqOpenDevice");
    Check(tqSetRefLevel(device, -20.0), "tqSetRefLevel");
    Check(tqSetAudioCenterFreq(device, centerHz), "tqSetAudioCenterFreq");
    Check(tqSetAudioType(device, (TqAudioType)type), "tqSetAudioType");
    Check(tqSetAudioFilters(device, CHANNEL_HZ[type], 5e3, 100.0), "tqSetAudioFilters");
    Check(tqConfigure(device, tqModeAudio), "tqConfigure");

    wav = sf_open(argv[1], SFM_WRITE, &info);
    if (!wav) {
        fprintf(stderr, "%s: %s\n", argv[1], sf_strerror(NULL));
        return EXIT_FAILURE;
    }
    sf_command(wav, SFC_SET_CLIPPING, NULL, SF_TRUE);
    for (int left = (int)(seconds * RATE / BLOCK); left > 0; left--) {
        Check(tqGetAudio(device, audio), "tqGetAudio");
        for (int i = 0; i < BLOCK; i++) {
            audio[i] *= VOLUME;
            power += (double)audio[i] * audio[i];
        }
        if (sf_write_float(wav, audio, BLOCK) != BLOCK) {
            fprintf(stderr, "%s: %s\n", argv[1], sf_strerror(wav));
            return EXIT_FAILURE;
        }
    }
    if (sf_close(wav) != 0) {
        fprintf(stderr, "%s: could not be finished\n", argv[1]);
        return EXIT_FAILURE;
    }
    Check(tqCloseDevice(device), "tqCloseDevice");
    fprintf(stderr, "%.3f MHz %s, %.1f s at %.1f dB of full scale\n", centerHz / 1e6, name, seconds,
            10.0 * log10(power / (seconds * RATE) + 1e-12));
    return EXIT_SUCCESS;
}

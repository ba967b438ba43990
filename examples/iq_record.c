/*
 * Records one second of I/Q around a frequency as SigMF: NAME.sigmf-data holds the samples, NAME.sigmf-meta says what
 * they are.
 *
 *     iq_record NAME [FREQUENCY_HZ [DECIMATION]]
 */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "tq_api.h"

#define DEFAULT_HZ 100e6
#define DEFAULT_DECIMATION 8
#define SECONDS 1.0
#define BLOCK 65536 /* samples of one call */

static void Check(TqStatus status, const char* call) {
    if (status != tqNoError) fprintf(stderr, "%s: %s\n", call, tqGetErrorString(status));
    if (status < tqNoError) exit(EXIT_FAILURE);
}

static FILE* Create(const char* name, const char* suffix) {
    char path[1024];
    FILE* file = NULL;
    if (snprintf(path, sizeof path, "%s.%s", name, suffix) < (int)sizeof path) file = fopen(path, "wb");
    if (!file) {
        perror(path);
        exit(EXIT_FAILURE);
    }
    return file;
}

static void Close(FILE* file) {
    if (ferror(file) | fclose(file)) {
        perror("write");
        exit(EXIT_FAILURE);
    }
}

/* Samples are 16-bit; the factor that makes them square roots of milliwatts stands beside them. */
static void WriteMeta(const char* name, int serial, double rate, double centerHz, double bandwidth, float scale,
                      int64_t nsSinceEpoch) {
    FILE* file = Create(name, "sigmf-meta");
    const time_t seconds = (time_t)(nsSinceEpoch / 1000000000);
    char date[32];
    strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", gmtime(&seconds));
    fprintf(file,
            "{\n"
            "  \"global\": {\n"
            "    \"core:datatype\": \"ci16_le\",\n"
            "    \"core:sample_rate\": %.9f,\n"
            "    \"core:version\": \"1.0.0\",\n"
            "    \"core:hw\": \"TQ720 %08d\",\n"
            "    \"core:recorder\": \"libtq_api %s\",\n"
            "    \"core:description\": \"bandwidth %.0f Hz; sample / 32768 * %.9g is in sqrt(mW)\"\n"
            "  },\n"
            "  \"captures\": [\n"
            "    {\"core:sample_start\": 0, \"core:frequency\": %.3f, \"core:datetime\": \"%s.%09dZ\"}\n"
            "  ],\n"
            "  \"annotations\": []\n"
            "}\n",
            rate, serial, tqGetAPIVersion(), bandwidth, scale, centerHz, date, (int)(nsSinceEpoch % 1000000000));
    Close(file);
}

int main(int argc, char** argv) {
    static int16_t block[2 * BLOCK];
    const double centerHz = argc > 2 ? atof(argv[2]) : DEFAULT_HZ;
    const int decimation = argc > 3 ? atoi(argv[3]) : DEFAULT_DECIMATION;
    int device, serial, losses = 0;
    double rate, bandwidth;
    float scale;
    int64_t start = 0, left;
    FILE* data;

    if (argc < 2) {
        fprintf(stderr, "usage: %s NAME [FREQUENCY_HZ [DECIMATION]]\n", argv[0]);
        return EXIT_FAILURE;
    }
    Check(tqOpenDevice(&device), "tqOpenDevice");
    Check(tqGetSerialNumber(device, &serial), "tqGetSerialNumber");
    Check(tqSetIQDataType(device, tqDataType16sc), "tqSetIQDataType");
    Check(tqSetIQCenterFreq(device, centerHz), "tqSetIQCenterFreq");
    Check(tqSetIQSampleRate(device, decimation), "tqSetIQSampleRate");
    Check(tqConfigure(device, tqModeIQStreaming), "tqConfigure");
    Check(tqGetIQParameters(device, &rate, &bandwidth), "tqGetIQParameters");
    Check(tqGetIQCorrection(device, &scale), "tqGetIQCorrection");

    data = Create(argv[1], "sigmf-data");
    for (left = (int64_t)(rate * SECONDS); left > 0; left -= BLOCK) {
        const int count = left < BLOCK ? (int)left : BLOCK;
        int lost = 0;
        Check(tqGetIQ(device, block, count, NULL, 0, start ? NULL : &start, tqFalse, &lost, NULL), "tqGetIQ");
        losses += lost;
        fwrite(block, 2 * sizeof *block, (size_t)count, data);
    }
    Close(data);
    WriteMeta(argv[1], serial, rate, centerHz, bandwidth, scale, start);
    if (losses) fprintf(stderr, "%d gaps: the disk or the processor is too slow\n", losses);
    Check(tqCloseDevice(device), "tqCloseDevice");
    return losses ? EXIT_FAILURE : EXIT_SUCCESS;
}

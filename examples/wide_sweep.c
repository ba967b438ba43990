/*
 * Sweeps 9 kHz to 15 GHz once, prints every emitter that stands clear of the noise, and writes the sweep as CSV.
 *
 *     wide_sweep [FILE.csv]
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "tq_api.h"

#define START_HZ 9e3
#define STOP_HZ 15e9
#define RBW_HZ 30e3
#define SWEEP_TIME_S 0.5 /* 25 transforms or so averaged at each step: levels settle to a tenth of a dB */
#define CLEAR_OF_NOISE_DB 12.0
#define EMITTER_WIDTH_HZ 400e3 /* what stands closer together counts as one emitter */

static void Check(TqStatus status, const char* call) {
    if (status != tqNoError) fprintf(stderr, "%s: %s\n", call, tqGetErrorString(status));
    if (status < tqNoError) exit(EXIT_FAILURE);
}

static int CompareFloats(const void* a, const void* b) {
    const float x = *(const float*)a, y = *(const float*)b;
    return (x > y) - (x < y);
}

static float Median(const float* values, int count) {
    float* sorted = malloc((size_t)count * sizeof *sorted);
    float median;
    if (!sorted) exit(EXIT_FAILURE);
    for (int i = 0; i < count; i++) sorted[i] = values[i];
    qsort(sorted, (size_t)count, sizeof *sorted, CompareFloats);
    median = sorted[count / 2];
    free(sorted);
    return median;
}

/* The strongest bin of each group of bins above the threshold. */
static void PrintEmitters(const float* sweep, int size, double startHz, double binHz) {
    const double noise = Median(sweep, size);
    const int gap = (int)(EMITTER_WIDTH_HZ / binHz);
    int strongest = -1, last = 0;

    printf("noise %.1f dBm in %.0f kHz, bins of %.1f Hz\n\n%16s %12s\n", noise, RBW_HZ / 1e3, binHz, "frequency/MHz",
           "level/dBm");
    for (int i = 0; i < size; i++) {
        if (sweep[i] > noise + CLEAR_OF_NOISE_DB) {
            if (strongest < 0 || sweep[i] > sweep[strongest]) strongest = i;
            last = i;
        }
        if (strongest >= 0 && (i - last >= gap || i == size - 1)) {
            printf("%16.6f %12.2f\n", (startHz + strongest * binHz) / 1e6, sweep[strongest]);
            strongest = -1;
        }
    }
}

static void WriteCsv(const char* name, const float* sweep, int size, double startHz, double binHz) {
    FILE* file = fopen(name, "w");
    if (!file) {
        perror(name);
        exit(EXIT_FAILURE);
    }
    fprintf(file, "frequency_hz,level_dbm\n");
    for (int i = 0; i < size; i++) fprintf(file, "%.1f,%.3f\n", startHz + i * binHz, sweep[i]);
    if (fclose(file) != 0) {
        perror(name);
        exit(EXIT_FAILURE);
    }
}

int main(int argc, char** argv) {
    int device, serial, size;
    double startHz, binHz;
    float* sweep;

    Check(tqOpenDevice(&device), "tqOpenDevice");
    Check(tqGetSerialNumber(device, &serial), "tqGetSerialNumber");
    Check(tqSetSweepStartStop(device, START_HZ, STOP_HZ), "tqSetSweepStartStop");
    Check(tqSetSweepCoupling(device, RBW_HZ, RBW_HZ, SWEEP_TIME_S), "tqSetSweepCoupling");
    Check(tqSetRefLevel(device, -20.0), "tqSetRefLevel");
    Check(tqConfigure(device, tqModeSweeping), "tqConfigure");
    Check(tqGetSweepParameters(device, NULL, NULL, &startHz, &binHz, &size), "tqGetSweepParameters");

    sweep = malloc((size_t)size * sizeof *sweep);
    if (!sweep) return EXIT_FAILURE;
    Check(tqGetSweep(device, NULL, sweep, NULL), "tqGetSweep");

    printf("TQ720 %08d, %d bins\n", serial, size);
    PrintEmitters(sweep, size, startHz, binHz);
    if (argc > 1) WriteCsv(argv[1], sweep, size, startHz, binHz);
    free(sweep);
    Check(tqCloseDevice(device), "tqCloseDevice");
    return EXIT_SUCCESS;
}

/*
 * Sweeps a narrow span at a narrow RBW once and writes it to standard output as CSV; what it finds strongest goes to
 * standard error.
 *
 *     narrow_sweep [CENTER_HZ [SPAN_HZ [RBW_HZ]]] > FILE.csv
 */
#include <stdio.h>
#include <stdlib.h>

#include "tq_api.h"

static void Check(TqStatus status, const char* call) {
    if (status != tqNoError) fprintf(stderr, "%s: %s\n", call, tqGetErrorString(status));
    if (status < tqNoError) exit(EXIT_FAILURE);
}

int main(int argc, char** argv) {
    const double center = argc > 1 ? atof(argv[1]) : 97.1e6;
    const double span = argc > 2 ? atof(argv[2]) : 100e3;
    const double rbw = argc > 3 ? atof(argv[3]) : 100.0;
    int device, size, strongest = 0;
    double actualRbw, startHz, binHz;
    float* sweep;

    Check(tqOpenDevice(&device), "tqOpenDevice");
    Check(tqSetSweepStartStop(device, center - span / 2, center + span / 2), "tqSetSweepStartStop");
    Check(tqSetSweepCoupling(device, rbw, rbw, 1e-6), "tqSetSweepCoupling");
    Check(tqSetRefLevel(device, -20.0), "tqSetRefLevel");
    Check(tqConfigure(device, tqModeSweeping), "tqConfigure");
    Check(tqGetSweepParameters(device, &actualRbw, NULL, &startHz, &binHz, &size), "tqGetSweepParameters");

    sweep = malloc((size_t)size * sizeof *sweep);
    if (!sweep) return EXIT_FAILURE;
    Check(tqGetSweep(device, NULL, sweep, NULL), "tqGetSweep");

    printf("frequency_hz,level_dbm\n");
    for (int i = 0; i < size; i++) {
        if (sweep[i] > sweep[strongest]) strongest = i;
        printf("%.3f,%.3f\n", startHz + i * binHz, sweep[i]);
    }
    fprintf(stderr, "%d bins of %.3f Hz, RBW %.3f Hz, strongest %.6f MHz at %.2f dBm\n", size, binHz, actualRbw,
            (startHz + strongest * binHz) / 1e6, sweep[strongest]);
    free(sweep);
    Check(tqCloseDevice(device), "tqCloseDevice");
    if (fflush(stdout) != 0 || ferror(stdout)) {
        perror("standard output");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

/*
 * Watches 40 MHz of spectrum without a gap for some seconds and draws what a spectrum analyser's screen would show:
 * how often each level was met, and in what the last 1.3 seconds saw, the highest and lowest levels on top.
 *
 *     realtime FILE.png [CENTER_HZ [RBW_HZ [SECONDS]]]
 *
 * Needs gnuplot.
 */
#define _POSIX_C_SOURCE 200809L /* popen */

#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "tq_api.h"

#define SPAN_HZ 40e6
#define REF_DBM (-20.0) /* top of the screen */
#define HEIGHT_DB 120.0
#define FRAMES_PER_SECOND 30.0
#define FAINTEST 1e-6 /* density at which the colours begin */

typedef struct {
    int width, height, bins;
    double startHz, binHz, rbwHz, poiS;
    float *density, *alpha, *min, *max;
} Screen;

static void Check(TqStatus status, const char* call) {
    if (status != tqNoError) fprintf(stderr, "%s: %s\n", call, tqGetErrorString(status));
    if (status < tqNoError) exit(EXIT_FAILURE);
}

static float* Floats(int count) {
    float* values = malloc((size_t)count * sizeof *values);
    if (!values) exit(EXIT_FAILURE);
    return values;
}

static void Configure(int device, double centerHz, double rbwHz, Screen* s) {
    Check(tqSetRefLevel(device, REF_DBM), "tqSetRefLevel");
    Check(tqSetRealTimeCenterSpan(device, centerHz, SPAN_HZ), "tqSetRealTimeCenterSpan");
    Check(tqSetRealTimeRBW(device, rbwHz), "tqSetRealTimeRBW");
    Check(tqSetRealTimeDetector(device, tqDetectorMinMax), "tqSetRealTimeDetector");
    Check(tqSetRealTimeScale(device, tqScaleLog, REF_DBM, HEIGHT_DB), "tqSetRealTimeScale");
    Check(tqConfigure(device, tqModeRealTime), "tqConfigure");
    Check(tqGetRealTimeParameters(device, &s->rbwHz, &s->bins, &s->startHz, &s->binHz, &s->width, &s->height, &s->poiS),
          "tqGetRealTimeParameters");
    s->density = Floats(s->width * s->height);
    s->alpha = Floats(s->width * s->height);
    s->min = Floats(s->bins);
    s->max = Floats(s->bins);
}

/* Alpha over black. From blue over green and yellow to red, on a logarithmic scale: rare signals are what this screen
 * is for. */
static void Colour(float density, float alpha, int rgb[3]) {
    static const double STOPS[][3] = {{40, 60, 230}, {0, 190, 230}, {40, 220, 80}, {255, 230, 0}, {255, 60, 20}};
    const double decades = -log10(FAINTEST);
    double x = density > 0.0f ? (log10(density) + decades) / decades * 4.0 : 0.0;
    int i, stop;
    x = x < 0.0 ? 0.0 : x > 3.999 ? 3.999 : x;
    stop = (int)x;
    for (i = 0; i < 3; i++) {
        const double colour = STOPS[stop][i] + (x - stop) * (STOPS[stop + 1][i] - STOPS[stop][i]);
        rgb[i] = (int)(alpha * colour + 0.5);
    }
}

static void Draw(const Screen* s, const char* name, double centerHz) {
    const double columnMHz = s->binHz * (s->bins / s->width) / 1e6, levelDb = HEIGHT_DB / s->height;
    const double startMHz = s->startHz / 1e6, binMHz = s->binHz / 1e6, bottom = REF_DBM - HEIGHT_DB;
    FILE* plot = popen("gnuplot", "w");
    int x, y, i;
    if (!plot) {
        perror("gnuplot");
        exit(EXIT_FAILURE);
    }
    fprintf(plot, "set terminal pngcairo size 1400,800 font 'DejaVu Sans,12' background rgb 'black'\n");
    fprintf(plot, "set output '%s'\n", name);
    fprintf(plot, "set title 'Center %.3f MHz   Span %.1f MHz   RBW %.3g kHz   POI %.3g us' textcolor rgb 'gray80'\n",
            centerHz / 1e6, SPAN_HZ / 1e6, s->rbwHz / 1e3, s->poiS * 1e6);
    fprintf(plot, "set border linecolor rgb 'gray60'; set tics textcolor rgb 'gray80'\n");
    fprintf(plot, "set grid front linecolor rgb 'gray40' linewidth 0.5\n");
    fprintf(plot, "set xlabel 'frequency / MHz' textcolor rgb 'gray80'; set xtics 5 format '%%.0f'\n");
    fprintf(plot, "set ylabel 'level / dBm' textcolor rgb 'gray80'; set ytics 10\n");
    fprintf(plot, "set key top right textcolor rgb 'gray80' opaque\n");
    fprintf(plot, "set xrange [%f:%f]; set yrange [%f:%f]\n", (centerHz - SPAN_HZ / 2) / 1e6,
            (centerHz + SPAN_HZ / 2) / 1e6, bottom, REF_DBM);
    fprintf(plot,
            "plot '-' using 1:2:3:4:5 with rgbimage notitle, "
            "'-' using 1:2 with lines linewidth 1 linecolor rgb '#ffffff' title 'max', "
            "'-' using 1:2 with lines linewidth 1 linecolor rgb '#80ff70ff' title 'min'\n");
    for (y = 0; y < s->height; y++) {
        for (x = 0; x < s->width; x++) {
            int rgb[3];
            Colour(s->density[y * s->width + x], s->alpha[y * s->width + x], rgb);
            fprintf(plot, "%f %f %d %d %d\n", startMHz + (x + 0.5) * columnMHz, bottom + (y + 0.5) * levelDb, rgb[0],
                    rgb[1], rgb[2]);
        }
    }
    fprintf(plot, "e\n");
    for (i = 0; i < s->bins; i++) fprintf(plot, "%f %f\n", startMHz + i * binMHz, s->max[i]);
    fprintf(plot, "e\n");
    for (i = 0; i < s->bins; i++) fprintf(plot, "%f %f\n", startMHz + i * binMHz, s->min[i]);
    fprintf(plot, "e\n");
    if (pclose(plot) != 0) exit(EXIT_FAILURE);
}

int main(int argc, char** argv) {
    const double centerHz = argc > 2 ? atof(argv[2]) : 2.44e9;
    const double rbwHz = argc > 3 ? atof(argv[3]) : 30e3;
    const double seconds = argc > 4 ? atof(argv[4]) : 2.0;
    int device, frame, count = 0, missed = 0;
    Screen screen;
    if (argc < 2) {
        fprintf(stderr, "usage: realtime FILE.png [CENTER_HZ [RBW_HZ [SECONDS]]]\n");
        return EXIT_FAILURE;
    }
    Check(tqOpenDevice(&device), "tqOpenDevice");
    Configure(device, centerHz, rbwHz, &screen);
    for (frame = 0; frame < seconds * FRAMES_PER_SECOND; frame++) {
        const int before = count;
        Check(tqGetRealTimeFrame(device, screen.density, screen.alpha, screen.min, screen.max, &count, NULL),
              "tqGetRealTimeFrame");
        if (frame > 0) missed += count - before - 1;
    }
    Check(tqCloseDevice(device), "tqCloseDevice");
    printf("%d frames of %d x %d, %d missed\n", frame, screen.width, screen.height, missed);
    Draw(&screen, argv[1], centerHz);
    free(screen.density);
    free(screen.alpha);
    free(screen.min);
    free(screen.max);
    return EXIT_SUCCESS;
}

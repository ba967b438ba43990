#!/usr/bin/env bash
# Sets the machine up, builds, sweeps 9 kHz to 15 GHz on the virtual instrument, prints the emitters that the sweep
# found beside those of the scene, and writes out/sweep.csv and out/sweep.png. Fails if an emitter is missing, or off
# by more than one bin or 0.5 dB.
#     scripts/demo.sh [SCENE]
set -euo pipefail
cd "$(dirname "$0")/.."
scene=${1:-sim/scenes/default.txt}
build=$(scripts/build.sh release tq-sim tq_sim_preload wide_sweep | tail -n 1)
mkdir -p out

"$build/bin/tq-sim" --fast --scene "$scene" -- "$build/bin/wide_sweep" out/sweep.csv | tee out/emitters.txt

awk -v scene="$scene" '
    function number(text,    value) {
        value = text + 0
        if (text ~ /k$/) value *= 1e3; else if (text ~ /M$/) value *= 1e6; else if (text ~ /G$/) value *= 1e9
        return value
    }
    function abs(x) { return x < 0 ? -x : x }
    /bins of/ { for (i = 1; i < NF; i++) if ($i == "of") bin = $(i + 1) + 0 }
    NF == 2 && $1 + 0 > 0 { found++; frequency[found] = $1 * 1e6; level[found] = $2 }
    END {
        printf "\n%16s %10s %12s %10s\n", "in the scene/MHz", "level/dBm", "off by/bins", "off by/dB"
        while ((getline line < scene) > 0) {
            if (line ~ /^# For the real-time mode/) break
            if (line !~ /^[a-z]+ +freq=/) continue
            f = l = ""
            n = split(line, field, /[ \t]+/)
            for (i = 1; i <= n; i++) {
                if (field[i] ~ /^freq=/) f = number(substr(field[i], 6))
                if (field[i] ~ /^level=/) l = substr(field[i], 7) + 0
            }
            nearest = 0
            for (i = 1; i <= found; i++)
                if (!nearest || abs(frequency[i] - f) < abs(frequency[nearest] - f)) nearest = i
            bins = (frequency[nearest] - f) / bin
            dB = level[nearest] - l
            bad = abs(bins) > 1 || abs(dB) > 0.5
            printf "%16.6f %10.1f %+12.2f %+10.2f%s\n", f / 1e6, l, bins, dB, bad ? "  <- off" : ""
            wrong += bad
            emitters++
            if (abs(bins) > worstBins) worstBins = abs(bins)
            if (abs(dB) > worstDB) worstDB = abs(dB)
        }
        printf "\n%d emitters, %d found in the sweep; worst: %.2f bins, %.2f dB\n", emitters, found, worstBins, worstDB
        exit emitters == 0 || emitters != found || wrong > 0
    }' out/emitters.txt

gnuplot <<'E2'
set terminal pngcairo size 1600,700 font "DejaVu Sans,11"
set output "out/sweep.png"
set datafile separator ","
set title "TQ720, 9 kHz to 15 GHz, RBW 30 kHz"
set xlabel "frequency / GHz"
set ylabel "level / dBm"
set xrange [0:15]
set yrange [-125:-10]
set grid
unset key
plot "out/sweep.csv" every ::1 using ($1/1e9):2 with lines linewidth 1 linecolor rgb "#1f5fa8"
E2
echo "wrote out/sweep.csv and out/sweep.png"

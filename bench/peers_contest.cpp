#include "peers_contest.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>

#include <time.h>

namespace bench {
namespace {

constexpr double SLICE = 200e-6;  // least time between two looks at the clock [s]
constexpr std::size_t FEWEST_ROUNDS = 9;
constexpr double SLOW = 3.0;            // a contestant so many times slower than the best ...
constexpr std::size_t SLOW_ROUNDS = 3;  // ... runs only so often

// Of this thread: time in which the processor worked for others does not count.
double CpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double Error(const Line& line) {
    double sum = 0.0, scale = 0.0, largest = 0.0;
    for (std::size_t i = 0; i < line.reference.size(); i++) {
        const double wanted = line.reference[i];
        const double difference = std::fabs(static_cast<double>(line.result[i]) - wanted);
        if (!std::isfinite(difference)) return std::numeric_limits<double>::infinity();
        sum += difference * difference;
        scale += wanted * wanted;
        largest = std::max(largest, difference / (std::fabs(wanted) + line.accuracy.floor));
    }
    return line.accuracy.measure == Accuracy::Measure::Rms ? std::sqrt(sum / scale) : largest;
}

void Check(const Line& line, Contestant& contestant) {
    if (contestant.process.restart) contestant.process.restart();
    contestant.process.run();
    contestant.error = std::max(contestant.error, Error(line));
    contestant.accurate = contestant.error <= line.accuracy.bound;
}

// Time of one run, from a slice of `count`. A short one first runs once beside the clock, to find its data near.
double TimeSlice(const Contestant& contestant, std::size_t count) {
    if (contestant.process.settle) contestant.process.settle();
    if (count > 1) contestant.process.run();
    const double start = CpuSeconds();
    for (std::size_t i = 0; i < count; i++) contestant.process.run();
    return (CpuSeconds() - start) / static_cast<double>(count);
}

double Speed(const Line& line, const Contestant& contestant) { return line.work / contestant.median; }

std::string Name(const Contestant& contestant) {
    const std::string& variant = contestant.process.variant;
    return variant.empty() ? contestant.library : contestant.library + " " + variant;
}

}  // namespace

void Hold(Line& line, double seconds) {
    std::vector<Contestant>& all = line.contestants;
    std::vector<std::size_t> counts;
    std::vector<double> first;
    for (Contestant& contestant : all) {
        Check(line, contestant);
        const double once = TimeSlice(contestant, 1);
        counts.push_back(static_cast<std::size_t>(std::ceil(SLICE / std::max(once, 1e-9))));
        first.push_back(TimeSlice(contestant, counts.back()));
    }
    const double fastest = *std::ranges::min_element(first);

    std::vector<std::vector<double>> times(all.size());
    const double start = CpuSeconds();
    for (std::size_t round = 0; round < FEWEST_ROUNDS || CpuSeconds() - start < seconds; round++) {
        for (std::size_t i = 0; i < all.size(); i++) {
            const std::size_t who = (i + round) % all.size();
            if (round >= SLOW_ROUNDS && first[who] > SLOW * fastest) continue;
            times[who].push_back(TimeSlice(all[who], counts[who]));
        }
    }
    for (std::size_t i = 0; i < all.size(); i++) {
        std::ranges::sort(times[i]);
        const std::size_t size = times[i].size();
        all[i].low = times[i][size / 4];
        all[i].median = times[i][size / 2];
        all[i].high = times[i][size - 1 - size / 4];
        Check(line, all[i]);
        all[i].process = {all[i].process.variant};
    }
    line.reference = {};
}

const Contestant* Best(const Line& line, bool ours) {
    const Contestant* best = nullptr;
    for (const Contestant& contestant : line.contestants) {
        if (contestant.ours != ours || !contestant.accurate) continue;
        if (best == nullptr || contestant.median < best->median) best = &contestant;
    }
    return best;
}

double Ratio(const Line& line) {
    const Contestant* const ours = Best(line, true);
    const Contestant* const peer = Best(line, false);
    return ours != nullptr && peer != nullptr ? peer->median / ours->median : 0.0;
}

void PrintHeading() {
    std::printf("%-12s %-22s %-8s %9s %5s %8s | %9s %-13s %8s | %5s | others\n", "group", "line", "unit", "ours", "+-%",
                "error", "best peer", "", "error", "ratio");
}

void PrintLine(const Line& line) {
    const Contestant* const ours = Best(line, true);
    const Contestant* const peer = Best(line, false);
    std::printf("%-12s %-22s %-8s ", line.group.c_str(), line.name.c_str(), line.unit.c_str());
    if (ours != nullptr) {
        const double spread = 50.0 * (ours->high - ours->low) / ours->median;
        std::printf("%9.3f %5.1f %8.1e | ", Speed(line, *ours), spread, ours->error);
    } else {
        std::printf("%9s %5s %8s | ", "WRONG", "", "");
    }
    if (peer != nullptr) {
        std::printf("%9.3f %-13s %8.1e | ", Speed(line, *peer), Name(*peer).c_str(), peer->error);
    } else {
        std::printf("%9s %-13s %8s | ", "-", "", "");
    }
    std::printf("%5.2f |", Ratio(line));
    for (const Contestant& contestant : line.contestants) {
        if (&contestant == ours || &contestant == peer) continue;
        std::printf(" %s %.3g", Name(contestant).c_str(), Speed(line, contestant));
        if (!contestant.accurate) std::printf(" (error %.1e, does not count)", contestant.error);
        std::printf(";");
    }
    std::printf("\n");
    std::fflush(stdout);
}

void PrintSummary(const std::vector<Line>& lines) {
    struct Group {
        double logSum = 0.0, least = std::numeric_limits<double>::infinity();
        int count = 0;
    };
    std::map<std::string, Group> groups;
    for (const Line& line : lines) {
        const double ratio = Ratio(line);
        if (ratio <= 0.0) continue;
        Group& group = groups[line.group];
        group.logSum += std::log(ratio);
        group.least = std::min(group.least, ratio);
        group.count++;
    }
    for (const auto& [name, group] : groups) {
        std::printf("%-12s geometric mean of ours / best peer %.3f, least %.3f, %d lines\n", name.c_str(),
                    std::exp(group.logSum / group.count), group.least, group.count);
    }
}

bool WriteJson(const std::string& path, const std::vector<std::string>& header, const std::vector<Line>& lines) {
    std::ofstream file(path);
    file << "{\n  \"header\": [";
    for (std::size_t i = 0; i < header.size(); i++) file << (i > 0 ? ", " : "") << '"' << header[i] << '"';
    file << "],\n  \"lines\": [";
    for (std::size_t i = 0; i < lines.size(); i++) {
        const Line& line = lines[i];
        file << (i > 0 ? "," : "") << "\n    {\"group\": \"" << line.group << "\", \"name\": \"" << line.name
             << "\", \"unit\": \"" << line.unit << "\", \"ratio\": " << Ratio(line) << ", \"contestants\": [";
        for (std::size_t k = 0; k < line.contestants.size(); k++) {
            const Contestant& contestant = line.contestants[k];
            file << (k > 0 ? "," : "") << "\n      {\"name\": \"" << Name(contestant)
                 << "\", \"ours\": " << (contestant.ours ? "true" : "false")
                 << ", \"accurate\": " << (contestant.accurate ? "true" : "false")
                 << ", \"speed\": " << Speed(line, contestant) << ", \"speed_low\": " << line.work / contestant.high
                 << ", \"speed_high\": " << line.work / contestant.low
                 << ", \"error\": " << (std::isfinite(contestant.error) ? contestant.error : -1.0) << "}";
        }
        file << "]}";
    }
    file << "\n  ]\n}\n";
    file.close();
    return !file.fail();
}

}  // namespace bench

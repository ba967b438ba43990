// A contest: several ways to do one piece of work, each checked against a double-precision reference and timed in
// turns, so that whatever the machine does meanwhile meets all of them alike. Used by the benchmarks that put our
// primitives beside other libraries; one thread.
#pragma once

#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace bench {

// One way to do the work. Everything that it needs is bound and made beforehand.
struct Process {
    std::string variant = {};                 // what tells it from others of the same library
    std::function<void()> run = nullptr;      // null: the library has no such thing
    std::function<void()> restart = nullptr;  // back to the first run's input and state; null: each run is like it
    std::function<void()> settle = nullptr;   // before each timed slice, beside the clock; null: nothing to do
};

// How far a result may lie from the reference.
struct Accuracy {
    enum class Measure {
        Rms,      // of the differences, relative to that of the reference
        Relative  // largest difference, relative to |reference| + floor
    };
    Measure measure;
    double bound;
    double floor = std::numeric_limits<double>::min();
};

struct Contestant {
    std::string library;
    Process process;
    bool ours = false;

    double error = 0.0;                          // as Accuracy measures it, the larger of before and after timing
    bool accurate = false;                       // error within the bound; others are shown and don't count
    double median = 0.0, low = 0.0, high = 0.0;  // CPU time of a run and its quartiles [s]
};

struct Line {
    std::string group, name;
    std::string unit;
    double work;                    // of one run, in units x seconds
    const float* result;            // where every contestant leaves it
    std::vector<double> reference;  // what it must be
    Accuracy accuracy;
    std::vector<Contestant> contestants;
};

// Checks all contestants of the line, times them for about so many seconds, checks them again. Drops the references.
void Hold(Line& line, double seconds);

// The best accurate contestant of ours or of the peers; null for none.
const Contestant* Best(const Line& line, bool ours);

// The line's speed of ours over the best peer's; 0 where one of them is missing.
double Ratio(const Line& line);

void PrintHeading();
void PrintLine(const Line& line);
// Geometric mean and least ratio of each group.
void PrintSummary(const std::vector<Line>& lines);
// False when the file cannot be written.
bool WriteJson(const std::string& path, const std::vector<std::string>& header, const std::vector<Line>& lines);

}  // namespace bench

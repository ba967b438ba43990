// Helpers used all over the library: sleep and clocks, thread priorities, small arithmetic of the planners, and the
// two files that the library keeps per instrument in the user's home folder. No state but the path of that folder; any
// thread.
#pragma once

#include <cstdint>
#include <string>
#include <thread>

#include "tq_api.h"
#include "tq_correction_def.h"

void SystemSleep(int milliseconds);
uint64_t GetSystemTicks();  // monotonic clock, [ms]
int64_t GetEpochSeconds();  // system clock since the Unix epoch, [s]
int64_t GetEpochNanos();    // the same, [ns]

// Real-time FIFO scheduling for threads that move USB data. Without the right to it a thread keeps its normal
// priority. Both do the same on Linux.
void SetThreadPriorityAboveNormal(std::thread& thread);
void SetThreadPriorityTimeCritical(std::thread& thread);
// Threads carry no names on Linux.
inline void SetThreadName(std::thread&, const char*) {}

// Memory that this process can still get without harm to others, [bytes]: what the kernel calls available, or what is
// built in where that cannot be read, and no more than the limits of the process's control groups leave.
//   root  in front of /proc and /sys
double AvailableMemory(const std::string& root = "");
inline bool FitsInMemory(double bytes) { return bytes <= AvailableMemory(); }

// Bytes of one complex sample.
int GetDataTypeSize(TqDataType dataType);

// Smallest multiple of `multiple` that is not below v; v not negative, multiple above 0.
int64_t NextMultipleOf(int64_t v, int64_t multiple);

// Splits a decimation, a power of two, between FPGA (at most 4) and host.
void CalculateDecimation(int totalDecimation, int& hwDecimation, int& swDecimation);

// The largest power of two, up to 256, by which the base rate can be decimated with `span` [Hz] still in band. The
// span is below the usable bandwidth of the base rate, 47.18592 MHz.
int GetNarrowSweepDecimation(double span);

// A 13-bit reading in quarter degrees, bits 2 to 12 of v, as [degrees Celsius].
float ConvertTempAuxToC(uint16_t v);

// The folder of the local files, with a trailing slash, made if need be. Empty: there is no usable one, and none of
// the files below exists or can be written.
std::string GetCorrectionFilePath();
bool FileExists(const std::string& path);

// The cached calibration record of an instrument, sizeof(TQ720CalData) bytes at calMem. Get: false, and calMem
// untouched, when the file cannot be read or is too short. Save replaces the file in one step, so that no crash and no
// other process leaves half a record; it follows links, and removes what a crash left behind. Remove: the next opening
// takes the record from flash. May throw std::bad_alloc.
bool CorrectionFileExists(int serialNumber);
bool SaveCorrectionFile(int serialNumber, const void* calMem);
bool GetCorrectionsFromFile(int serialNumber, void* calMem);
void RemoveCorrectionFile(int serialNumber);

// The last timebase value learned from GPS. Read: false, and cal untouched, when there is no good file. Store replaces
// the file as Save does. May throw std::bad_alloc.
bool StoreGPSCorrection(int serial, TqGPSCal cal);
bool ReadGPSCorrection(int serial, TqGPSCal& cal);

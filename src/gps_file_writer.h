// Keeps the file work of the GPS timebase value off the time-critical USB threads. TqDevice owns one: engines post
// values from their threads, the client's own thread stores directly. A thread of its own writes each posted value at
// once; of several that come while it writes, the newest counts.
#pragma once

#include <functional>
#include <thread>

#include "tq_correction_def.h"
#include "vk_critical_section.h"
#include "vk_semaphore.h"

class GPSFileWriter {
public:
    // Starts the thread. Throws std::bad_alloc when there is no room for one.
    //   write  puts a value on file; it may block, and throw std::bad_alloc
    explicit GPSFileWriter(std::function<void(const TqGPSCal&)> write);
    // Writes what is still to be written.
    ~GPSFileWriter();
    GPSFileWriter(const GPSFileWriter&) = delete;
    GPSFileWriter& operator=(const GPSFileWriter&) = delete;

    // Returns at once, without allocating.
    void Post(const TqGPSCal& value);
    // Writes before it returns; an older value that waits is dropped.
    void Store(const TqGPSCal& value);

private:
    void WriterThread();
    bool TakePending(TqGPSCal& value);

    const std::function<void(const TqGPSCal&)> write;
    CriticalSection fileLock;  // held across a write, and taken before pendingLock
    CriticalSection pendingLock;
    TqGPSCal pending TQ_GUARDED_BY(pendingLock);  // valid: waits for the thread
    bool ending TQ_GUARDED_BY(pendingLock) = false;

    // The thread waits; posted once when a value begins to wait, and once by the destructor, behind ending = true.
    Semaphore work;
    std::thread writerThread;  // last, as it uses all of the above
};

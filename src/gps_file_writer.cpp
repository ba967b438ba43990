#include "gps_file_writer.h"

#include <exception>
#include <new>
#include <system_error>
#include <utility>

GPSFileWriter::GPSFileWriter(std::function<void(const TqGPSCal&)> writeValue) : write(std::move(writeValue)) {
    try {
        writerThread = std::thread(&GPSFileWriter::WriterThread, this);
    } catch (const std::system_error&) {
        throw std::bad_alloc();
    }
}

GPSFileWriter::~GPSFileWriter() {
    {
        const Lock held(pendingLock);
        ending = true;
    }
    work.Notify();
    writerThread.join();
}

void GPSFileWriter::Post(const TqGPSCal& value) {
    bool wasIdle = false;
    {
        const Lock held(pendingLock);
        wasIdle = !pending.valid;
        pending = value;
        pending.valid = true;
    }
    if (wasIdle) work.Notify();
}

void GPSFileWriter::Store(const TqGPSCal& value) {
    const Lock writing(fileLock);
    TqGPSCal older;
    TakePending(older);
    write(value);
}

// Takes the value that waits; whether there was one.
bool GPSFileWriter::TakePending(TqGPSCal& value) {
    const Lock held(pendingLock);
    value = std::exchange(pending, TqGPSCal());
    return value.valid;
}

void GPSFileWriter::WriterThread() {
    for (bool last = false; !last;) {
        work.Wait();
        {
            const Lock held(pendingLock);
            last = ending;
        }
        const Lock writing(fileLock);
        TqGPSCal value;
        if (!TakePending(value)) continue;
        try {
            write(value);
        } catch (const std::exception&) {
            // As with a full disk, the file keeps its older value.
        }
    }
}

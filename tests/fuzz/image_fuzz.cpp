// The parser of firmware images, on images of any size.
#include "firmware_image.h"

#include "fuzz_support.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<uint8_t> given(data, data + size);
    std::vector<uint8_t> img = given;
    const bool complete = IsCompleteImg(img);
    Require(!complete || (img[0] == 'C' && img[1] == 'Y'));

    int serial = 0;
    if (size >= sizeof serial) std::memcpy(&serial, data + size - sizeof serial, sizeof serial);
    const bool eightDigits = serial >= 0 && serial <= MAX_SERIAL;
    if (!UpdateImgSerial(img, serial)) Require(img == given);
    if (UpdateCheckSumImg(img, false)) {
        Require(UpdateCheckSumImg(img, true));
        const bool placed = UpdateImgSerial(img, serial);
        Require(!placed || (complete && eightDigits));
        Require(UpdateCheckSumImg(img, true));
    } else {
        Require(!complete && img == given);
    }

    uint16_t version = 0;
    const bool summed = UpdateCheckSumImg(img, true);
    if (!GetBootVersionFromFile(img, version)) Require(version == 0);
    if (SetImgVersion(img, version)) Require(UpdateCheckSumImg(img, true) == summed);
    return 0;
}

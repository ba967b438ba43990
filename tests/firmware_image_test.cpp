#include "firmware_image.h"

#include "fx3_image.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

namespace {

using Bytes = std::vector<uint8_t>;

TEST(FirmwareFile, IsReadWholeOrNotAtAll) {
    std::string folder = (std::filesystem::temp_directory_path() / "tq-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/image", pipe = folder + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::ofstream(path) << "12345";
    EXPECT_EQ(GetFileContents(path.c_str(), 8), (Bytes{'1', '2', '3', '4', '5', 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(GetFileContents(path.c_str(), 5), (Bytes{'1', '2', '3', '4', '5'}));
    EXPECT_EQ(GetFileContents(path.c_str(), 4), Bytes()) << "longer";
    // A regular file that cannot be read, for there is no memory at 0.
    for (const char* file : {folder.c_str(), pipe.c_str(), "/proc/self/mem", "/dev/zero", "/nowhere", ""}) {
        EXPECT_EQ(GetFileContents(file, 8), Bytes()) << file;
    }
    EXPECT_EQ(GetFileContents(nullptr, 8), Bytes());
    EXPECT_EQ(GetFileContents(path.c_str(), 0), Bytes());
    std::filesystem::remove_all(folder);
}

TEST(FirmwareImage, TakesASerialNumberAndANewChecksum) {
    const struct {
        int serial;
        const char* digits;
    } cases[] = {{0, "00000000"}, {4711, "00004711"}, {99999999, "99999999"}, {11111111, "11111111"}};
    for (const auto& c : cases) {
        Bytes img = Fx3Image().Padded();
        EXPECT_TRUE(UpdateImgSerial(img, c.serial));
        EXPECT_TRUE(img == Fx3Image({.serial = c.digits}).Padded()) << c.serial;
    }
    const Bytes original = Fx3Image().Padded();
    Bytes img = original;
    for (const int serial : {-1, 100000000}) EXPECT_FALSE(UpdateImgSerial(img, serial));
    EXPECT_TRUE(img == original);

    img[Fx3Image().endAt - 1] ^= 0x80;
    const Bytes changed = img;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(UpdateCheckSumImg(img, true));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Fail to boot due to checksum error\n");
    EXPECT_FALSE(UpdateImgSerial(img, 4711));
    EXPECT_TRUE(img == changed) << "a wrong checksum leaves the image alone";
    EXPECT_TRUE(IsCompleteImg(img));
    EXPECT_TRUE(UpdateCheckSumImg(img, false));
    EXPECT_TRUE(UpdateCheckSumImg(img, true));
}

// Each is exactly as long as it is, so that a sanitizer sees whoever walks on.
TEST(FirmwareImage, BrokenOnesAreRefusedAndLeftAlone) {
    const Fx3Image good;
    const auto word = [](size_t at, uint32_t value) { return [=](Bytes& img) { std::memcpy(&img[at], &value, 4); }; };
    const auto cut = [](size_t size) { return [=](Bytes& img) { img.resize(size); }; };
    const struct {
        const char* name;
        std::function<void(Bytes&)> spoil;
    } cases[] = {
        {"nothing", cut(0)},
        {"no length", cut(4)},
        {"no C", [](Bytes& img) { img[0] = 'B'; }},
        {"first section endless", word(4, 0xFFFFFFFF)},
        {"length that wraps to 4 bytes", word(4, 0xC0000001)},
        {"one word too long", word(4, static_cast<uint32_t>(good.bytes.size() / 4 - 2))},
        {"exactly to the end", word(4, static_cast<uint32_t>(good.bytes.size() / 4 - 3))},
        {"second section endless", word(good.endAt - 3002 * 4, 0x80000000)},
        {"no end", word(good.endAt, 1)},
        {"cut before the checksum", cut(good.endAt + 8)},
        {"cut in the checksum", cut(good.endAt + 11)},
        {"no placeholder", [&](Bytes& img) { img[good.serialAt] = '2'; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes img = good.bytes;
        c.spoil(img);
        img.shrink_to_fit();
        const Bytes before = img;
        EXPECT_FALSE(IsCompleteImg(img));
        EXPECT_FALSE(UpdateImgSerial(img, 1));
        EXPECT_TRUE(img == before);
    }
}

// Digits that reach out of a section's data are none of its strings: a serial number there would break the list.
TEST(FirmwareImage, APlaceholderLiesInTheData) {
    const auto image = [](size_t digitsAt) {
        constexpr uint32_t WORDS[] = {0x5943, 5, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        Bytes img(sizeof WORDS);
        std::memcpy(img.data(), WORDS, sizeof WORDS);
        for (size_t i = 0; i < 8; ++i) img[digitsAt + 2 * i] = '1';
        return img;
    };
    EXPECT_FALSE(IsCompleteImg(image(11))) << "begins in the load address";
    EXPECT_TRUE(IsCompleteImg(image(12)));
    EXPECT_TRUE(IsCompleteImg(image(17)));
    EXPECT_FALSE(IsCompleteImg(image(38))) << "begins in the second load address";
    EXPECT_TRUE(IsCompleteImg(image(45)));
    EXPECT_FALSE(IsCompleteImg(image(64))) << "lies over the checksum";
}

TEST(FirmwareImage, FindsTheVersionAndPutsItAtTheEnd) {
    const auto marked = [](size_t size, size_t at) {
        Bytes img(size, 0xFF);
        std::memcpy(&img[at], "FW Ver\x03", std::min<size_t>(7, size - at));
        if (at + 7 < size) img[at + 7] = 0x09;
        return img;
    };
    uint16_t version = 0;
    EXPECT_TRUE(GetBootVersionFromFile(marked(9, 0), version));
    EXPECT_EQ(version, 0x0309);
    EXPECT_TRUE(GetBootVersionFromFile(marked(100, 91), version));
    for (const Bytes& img : {Bytes(), marked(8, 0), marked(100, 92), marked(100, 94)}) {
        EXPECT_FALSE(GetBootVersionFromFile(img, version)) << img.size();
    }

    for (const size_t left : {0u, 1u, 2u}) {
        const Fx3Image made;
        Bytes img = made.Padded(made.bytes.size() + left);
        EXPECT_EQ(SetImgVersion(img, 0x1234), left == 2);
        EXPECT_TRUE(UpdateCheckSumImg(img, true));
        if (left == 2) {
            EXPECT_EQ(img[img.size() - 2] << 8 | img.back(), 0x1234);
        }
    }
}

}  // namespace

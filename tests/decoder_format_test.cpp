// How trace bytes are read: the field readers, the walk over frames and messages, and what is logged about damage.

#include <cstdlib>
#include <sstream>

#include "decoder_support.h"

using namespace decoder_test;

static char *chars(Bytes &bytes) {
    return reinterpret_cast<char *>(bytes.data());
}
static int length(const Bytes &bytes) {
    return static_cast<int>(bytes.size());
}
static Bytes joined(Bytes bytes, const Bytes &more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

// Each reader's result as status, length and what was read, and its log are in data/logs/fields.log.
TEST_F(DecoderTest, FieldsAreReadOrReported) {
    std::string results;
    const auto number = [&](const char *name, Bytes bytes, int offset) {
        retIntStruct result;
        initiailizeRet(0, &result);
        get_unpackedInt(length(bytes), offset, chars(bytes), &result);
        results +=
            text("%s %d %d %llu\n", name, result.status, result.length, static_cast<unsigned long long>(result.value)) +
            log_text();
    };
    number("OneByte", {0x7f}, 0);
    number("LowGroupFirst", {0xff, 0xe5, 0x8e, 0x26, 0x11}, 1);
    number("EmptyHighGroups", {0x81, 0x80, 0x00}, 0);
    number("TenBytes", joined(Bytes(9, 0xff), {0x01}), 0);
    number("BitsBeyond64AreLost", joined(Bytes(9, 0x80), {0x7e}), 0);
    number("ElevenBytes", joined(Bytes(10, 0x80), {0x00}), 0);
    number("TwentyBytes", joined(Bytes(19, 0x80), {0x01, 0x05}), 0);
    number("CutShort", {0x80, 0x80}, 0);
    number("AtTheEnd", {0x01}, 1);
    number("AfterTheEnd", {0x01}, 5);

    constexpr int kTerminated = -9;
    const auto string = [&](const char *name, std::string frame, int offset, int count) {
        const auto size = static_cast<int>(frame.size());
        retCharStruct result;
        initiailizeRet(1, &result);
        if (count == kTerminated) get_unpackedBytes(size, offset, frame.data(), &result);
        if (count != kTerminated) get_unpackedBytesWithLength(size, offset, frame.data(), count, &result);
        results += text("%s %d %d ", name, result.status, result.length);
        // The terminator is part of a terminated string's block only.
        if (result.data != nullptr) {
            results += count == kTerminated ? result.data : std::string(result.data, static_cast<size_t>(count));
        }
        results += "\n" + log_text();
        free(result.data);
    };
    string("Terminated", std::string("xxabc\0y", 7), 2, kTerminated);
    string("LongIsCutButConsumed", std::string(26, 'l') + '\0', 0, kTerminated);
    string("Unterminated", "xyabc", 2, kTerminated);
    string("TerminatedAfterTheEnd", "abc", 3, kTerminated);
    string("CountedUpToTheEnd", "xhello", 1, 5);
    string("CountedBeyondTheEnd", "xhello", 1, 6);
    string("CountLargerThanMemory", "xhello", 1, 0x7fffffff);
    string("CountedAfterTheEnd", "x", 1, 3);
    string("CountZeroIsSilent", "xyz", 0, 0);
    string("NegativeCountIsSilent", "xyz", 0, -2);
    expect_golden("fields", results);
}

TEST_F(DecoderTest, BlocksEndAsTheySay) {
    std::string lines;
    const auto ends = [&](const char *name, Bytes bytes, int type) {
        EXPECT_EQ(decode_file(bytes.empty() ? nullptr : bytes.data(), static_cast<unsigned>(bytes.size())), type);
        lines += std::string(name) + "\n" + log_text();
    };
    ends("length alone", {2, 0, 0, 0}, -1);
    ends("frame up to the end", {2, 0, 0, 0, 7, 0}, -1);
    ends("another up to the last byte", {2, 0, 0, 0, 7, 0, 2, 0, 0, 0, 8, 3, 0xee}, 8);
    ends("a frame of one byte is passed over", {3, 0, 0, 0, 0xfe, 9, 9, 1, 0, 0, 0, 8, 0}, -2);
    ends("longest frame", joined({0x00, 0x00, 0x02, 0x00, 9}, Bytes(131072)), 9);
    ends("longer frame", {0x01, 0x00, 0x02, 0x00, 7, 0}, -1);
    ends("nothing", {}, -1);
    expect_golden("block-ends", lines);
}

// Each numbered check of the two walkers; between them the readers' own lines. In 33 bits, one is no message type.
TEST_F(DecoderTest, RefusedFramesAreNumberedInTheLog) {
    for (const std::string text :
         {"07 04", "07 ff 01", "07 00 81", "07 00 02", "07 00 00 01", "07 03 03 01", "07 00 81 80 80 80 10", "08",
          "87 00", "08 04", "08 00 80", "08 00 01", "08 00 09 01"}) {
        Bytes frame;
        std::istringstream bytes(text);
        for (std::string byte; bytes >> byte;) frame.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
        retIntStruct result = {5, 5, 5};
        (frame[0] == 7 ? decode_frame : decode_frame_8)(length(frame), chars(frame), 4711, &result);
        EXPECT_NE(result.status, 0);
    }
    expect_golden("refused-frames", log_text());
    Bytes other = {8, 9, 1};
    retIntStruct result = {5, 6, 7};
    decode_frame(3, chars(other), 0, &result);
    EXPECT_EQ(log_text() + std::to_string(result.status), "5") << "other types are none of the switch walker's";
}

TEST_F(DecoderTest, MessagesBeforeADamagedOneKeepTheirEffect) {
    Bytes good = frame(7, sample(5, 77, "player"), sample(6, 78, "player"));
    retIntStruct result;
    decode_frame(length(good), chars(good), 0, &result);
    EXPECT_EQ(log_text() + text("%d %d", result.status, result.length), "0 0");
    decode({joined(good, {1, 0x80}), frame(7, sample(7, 79, "later"))});
    EXPECT_THAT(log_text(), testing::HasSubstr(text("vestra : 4. Corrupted frame at file_index:4, frame index:%d, "
                                                    "frame_len:%d, messageType:1, offset:1$\n",
                                                    length(good), length(good) + 2)));
    EXPECT_EQ(list().size(), 5U);
}

// A frame with a message in which every field, the name's length and the name included, takes two bytes.
static Bytes even_message(uint8_t type, int fields) {
    Bytes frame = {type, 0, 1};
    for (int field = 0; field < fields; ++field) {
        frame = joined(frame, field == 3 ? Bytes{0x82, 0x00} : field == 4 ? Bytes{'n', 'o'} : Bytes{0x87, 0x01});
    }
    return frame;
}

TEST_F(DecoderTest, CutMessageStoresNothingAndSaysWhereAtEveryLength) {
    for (const bool info : {false, true}) {
        const Bytes whole = even_message(info ? 8 : 7, info ? 19 : 13 + 20);
        std::string lines;
        for (int size = 0; size < length(whole) - 3; ++size) {
            decode({Bytes(whole.begin(), whole.begin() + 3 + size)});
            lines += text("body of %d bytes:\n", size) + log_text("56");
        }
        expect_golden(info ? "cut-info-message" : "cut-switch-message", lines);
        EXPECT_EQ(maxTimeValue, -1);
        EXPECT_EQ(list().size(), 0U);
        decode({whole});
        EXPECT_EQ(log_text("56"), "");
        EXPECT_EQ(maxTimeValue, 135);
        reset_decoder();
    }
    // Lengths of a name that no frame has room for.
    for (const Bytes &count : {Bytes{0}, Bytes{0x80, 0x80, 0x80, 0x80, 0x08}, Bytes{0x84, 0x80, 0x80, 0x80, 0x10}}) {
        decode({joined(joined({7, 0, 1, 5, 0, 77}, count), Bytes(40, 1))});
        EXPECT_THAT(log_text(), testing::HasSubstr(text("9. Corrupted at frame_index:3, frame_len:%d, messageType:1, "
                                                        "offset:%d $\n",
                                                        46 + length(count), 3 + length(count))));
    }
    EXPECT_EQ(maxTimeValue, -1);
}

TEST_F(DecoderTest, CoresAreReadAgainWhateverTheLastMessageSaid) {
    trace::SwitchMessage message = sample(2, 77, "player");
    const auto expect_cores = [&] {
        for (size_t i = 0; i < 4; ++i) {
            const _SYSDATA_ &slot = collectedData[2];
            const auto &[user, system, idle, temperature, iowait] = message.cores[i];
            EXPECT_EQ(static_cast<uint64_t>(slot.utime[i]), user);
            EXPECT_EQ(static_cast<uint64_t>(slot.stime[i]), system);
            EXPECT_EQ(static_cast<uint64_t>(slot.idletime[i]), idle);
            EXPECT_EQ(static_cast<uint64_t>(slot.temperature[i]), temperature);
            EXPECT_EQ(static_cast<uint64_t>(slot.iowaittime[i]), iowait);
        }
    };
    for (size_t changed = 0; changed < 20; ++changed) {
        for (const uint64_t figure : {8U, 300U, 300U}) {
            message.cores.fill({7, 7, 7, 7, 7});
            trace::CoreTimes &core = message.cores[changed / 5];
            *std::array{&core.user, &core.system, &core.idle, &core.temperature, &core.iowait}[changed % 5] = figure;
            const Bytes whole = frame(trace::kSwitchFrame, message);
            decode({whole});
            expect_cores();
            decode({Bytes(whole.begin(), whole.end() - 1)});  // a block that is damaged at its end
            expect_cores();
            initiailizeRet(0, &iowaittimeIs);
            collectedData[2] = {};
            decode({whole, whole});
            expect_cores();
            EXPECT_EQ(iowaittimeIs.value, message.cores[3].iowait);
            EXPECT_EQ(iowaittimeIs.length, message.cores[3].iowait > 127 ? 2 : 1);
        }
    }
}

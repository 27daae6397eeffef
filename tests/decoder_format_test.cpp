// How trace bytes are read: the field readers, the walk over frames and messages, and what is logged about damage.

#include <cstdlib>
#include <cstring>

#include "decoder_support.h"

using namespace decoder_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using vestra_set::kInfoFrame;
using vestra_set::kSwitchFrame;

namespace {

char *chars(Bytes &bytes) {
    return reinterpret_cast<char *>(bytes.data());
}
int length(const Bytes &bytes) {
    return static_cast<int>(bytes.size());
}

Bytes repeated(size_t count, uint8_t byte, const Bytes &rest) {
    Bytes bytes(count, byte);
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
}

/* ------------------------------ Field readers ------------------------------ */

struct VarintCase {
    const char *name;
    Bytes bytes;
    int offset;
    int length;  // -1: refused
    uint64_t value;
    int examined;  // as the log says it
};

class Varint : public DecoderTest, public ::testing::WithParamInterface<VarintCase> {};

TEST_P(Varint, IsReadOrReported) {
    VarintCase row = GetParam();
    retIntStruct result;
    initiailizeRet(0, &result);
    get_unpackedInt(::length(row.bytes), row.offset, chars(row.bytes), &result);
    EXPECT_EQ(result.status, row.length < 0 ? -1 : 0);
    EXPECT_EQ(result.length, row.length);
    EXPECT_EQ(result.value, row.value);
    if (row.length > 0) {
        EXPECT_THAT(take_log(), IsEmpty());
    } else {
        EXPECT_THAT(take_log(),
                    ElementsAre(LogLine{kWarning, "get_unpackedInt",
                                        text("vestra : Corrupted at frame_index:%d, frame_len:%d, offset:%d \n",
                                             row.offset, ::length(row.bytes), row.examined)}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    , Varint,
    ::testing::Values(VarintCase{"Zero", {0}, 0, 1, 0, 0}, VarintCase{"OneByte", {0x7f}, 0, 1, 127, 0},
                      VarintCase{"TwoBytes", {0x80, 0x01}, 0, 2, 128, 0},
                      VarintCase{"LowGroupFirst", {0xff, 0xe5, 0x8e, 0x26, 0x11}, 1, 3, 624485, 0},
                      VarintCase{"EmptyHighGroups", {0x81, 0x80, 0x00}, 0, 3, 1, 0},
                      VarintCase{"NineBytes", repeated(8, 0xff, {0x7f}), 0, 9, (uint64_t{1} << 63) - 1, 0},
                      VarintCase{"TenBytes", repeated(9, 0xff, {0x01}), 0, 10, ~uint64_t{0}, 0},
                      VarintCase{"BitsBeyond64AreLost", repeated(9, 0x80, {0x7e}), 0, 10, 0, 0},
                      VarintCase{"ElevenBytes", repeated(10, 0x80, {0x00}), 0, -1, ~uint64_t{0}, 11},
                      VarintCase{"TwentyBytes", repeated(19, 0x80, {0x01, 0x05}), 0, -1, ~uint64_t{0}, 20},
                      VarintCase{"CutShort", {0x80, 0x80}, 0, -1, ~uint64_t{0}, 2},
                      VarintCase{"CutShortAfterTwelve", Bytes(12, 0xff), 0, -1, ~uint64_t{0}, 12},
                      VarintCase{"AtTheEnd", {0x01}, 1, -1, ~uint64_t{0}, 0},
                      VarintCase{"BehindTheEnd", {0x01}, 5, -1, ~uint64_t{0}, 0}),
    [](const auto &row) { return row.param.name; });

struct StringCase {
    const char *name;
    const char *bytes;             // the frame, with its terminator where `whole`
    int frame_len, offset, count;  // count -1: terminated
    int length;                    // -1: refused
    const char *kept;              // what is in the block, or in the log line; null: no line
    int copied;
};

class ByteString : public DecoderTest, public ::testing::WithParamInterface<StringCase> {};

TEST_P(ByteString, IsCopiedOrReported) {
    const StringCase &row = GetParam();
    std::string frame(row.bytes, static_cast<size_t>(row.frame_len));
    retCharStruct result;
    initiailizeRet(1, &result);
    if (row.count == -1) {
        get_unpackedBytes(row.frame_len, row.offset, frame.data(), &result);
    } else {
        get_unpackedBytesWithLength(row.frame_len, row.offset, frame.data(), row.count, &result);
    }
    EXPECT_EQ(result.status, row.length < 0 ? -1 : 0);
    EXPECT_EQ(result.length, row.length);
    if (row.length >= 0) {
        ASSERT_NE(result.data, nullptr);
        EXPECT_EQ(std::string(result.data, strlen(row.kept)), row.kept);
        EXPECT_TRUE(row.count != -1 || strcmp(result.data, row.kept) == 0);
    } else {
        EXPECT_EQ(result.data, nullptr);
    }
    if (row.length < 0 && row.kept != nullptr) {
        EXPECT_THAT(take_log(), ElementsAre(LogLine{
                                    kWarning, row.count == -1 ? "get_unpackedBytes" : "get_unpackedBytesWithLength",
                                    text("vestra : Corrupted at frame_index:%d, frame_len:%d, offset:%d , comm: %s \n",
                                         row.offset, row.frame_len, row.copied, row.kept)}));
    } else {
        EXPECT_THAT(take_log(), IsEmpty());
    }
    free(result.data);
}

INSTANTIATE_TEST_SUITE_P(, ByteString,
                         ::testing::Values(StringCase{"Terminated", "abc\0xyz", 7, 0, -1, 4, "abc", 0},
                                           StringCase{"TerminatedAtTheEnd", "xxabc\0", 6, 2, -1, 4, "abc", 0},
                                           StringCase{"EmptyTerminated", "\0a", 2, 0, -1, 1, "", 0},
                                           StringCase{"LongIsCutButConsumed", "0123456789abcdefghijklmnop\0", 27, 0, -1,
                                                      27, "0123456789abcdefghi", 0},
                                           StringCase{"TwentyWithTerminatorFit", "0123456789abcdefghi\0", 20, 0, -1, 20,
                                                      "0123456789abcdefghi", 0},
                                           StringCase{"Unterminated", "xyabc", 5, 2, -1, -1, "abc", 3},
                                           StringCase{"TerminatedBehindTheEnd", "abc", 3, 3, -1, -1, "", 0},
                                           StringCase{"Counted", "xhello!", 7, 1, 5, 5, "hello", 0},
                                           StringCase{"CountedUpToTheEnd", "xhello", 6, 1, 5, 5, "hello", 0},
                                           StringCase{"CountedBeyondTheEnd", "xhello", 6, 1, 6, -1, "hello", 5},
                                           StringCase{"CountLargerThanMemory", "xhello", 6, 1, 0x7fffffff, -1, "hello",
                                                      5},
                                           StringCase{"CountedBehindTheEnd", "x", 1, 1, 3, -1, "", 0},
                                           StringCase{"CountZeroIsSilent", "xyz", 3, 0, 0, -1, nullptr, 0},
                                           StringCase{"NegativeCountIsSilent", "xyz", 3, 0, -2, -1, nullptr, 0}),
                         [](const auto &row) { return row.param.name; });

TEST(Decimals, DigitsStandBehindThePoint) {
    const struct {
        int integer, fraction;
        double value;
    } kRows[] = {{36, 5, 36.5},
                 {36, 25, 36.25},
                 {36, 0, 36.0},
                 {0, 7, 0.7},
                 {1, 123, 1.123},
                 {2, 10, 2.1},
                 {5, 1000, 5.1},
                 {5, 999, 5.999},
                 {7, -3, 7.0},
                 {-4, 5, -3.5},
                 {0, 2147483647, 0.2147483647}};
    for (const auto &row : kRows) {
        EXPECT_EQ(covert_intfrac_double(row.integer, row.fraction), row.value) << row.integer << "," << row.fraction;
    }
}

/* ------------------------------ Walk over frames ------------------------------ */

struct BlockCase {
    const char *name;
    Bytes bytes;
    int type;
    int frames;          // that were looked at
    std::string ending;  // the last line
};

class Block : public DecoderTest, public ::testing::WithParamInterface<BlockCase> {};

TEST_P(Block, EndsAsItSays) {
    BlockCase row = GetParam();
    EXPECT_EQ(decode(row.bytes), row.type);
    const auto lines = take_log();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), (LogLine{kDebug, "decode_file", row.ending}));
    EXPECT_EQ(lines.size(), static_cast<size_t>(row.frames) + 1);
}

std::string no_more_valid(int index, int total) {
    return text("vestra : No more valid data file_index %d total %d \n", index, total);
}
std::string no_more(int index, int total) {
    return text("vestra : No more data file_index %d total %d \n", index, total);
}

Bytes largest_block() {
    Bytes bytes = {0x00, 0x00, 0x02, 0x00, 9};
    bytes.resize(4 + 131072 + 1);
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    , Block,
    ::testing::Values(
        BlockCase{"FourBytes", {2, 0, 0, 0}, -1, 0, no_more_valid(0, 4)},
        BlockCase{"FrameEndsWithTheBlock", {2, 0, 0, 0, 7, 0}, -1, 0, no_more(0, 6)},
        BlockCase{"EmptyFramesOfTwoBytes", {2, 0, 0, 0, 7, 0, 2, 0, 0, 0, 8, 3, 0xee}, 8, 2, no_more_valid(12, 13)},
        BlockCase{"LengthOneKeepsTheType", {2, 0, 0, 0, 7, 0, 1, 0, 0, 0, 8, 0}, 7, 1, no_more_valid(11, 12)},
        BlockCase{"UnknownTypeIsReturned", {3, 0, 0, 0, 0xfe, 9, 9, 0}, -2, 1, no_more_valid(7, 8)},
        BlockCase{"CutFrame", {2, 0, 0, 0, 7, 0, 9, 0, 0, 0, 8, 0}, 7, 1, no_more(6, 12)},
        BlockCase{"LargestFrame", largest_block(), 9, 1, no_more_valid(131076, 131077)},
        BlockCase{"OneMore", {0x01, 0x00, 0x02, 0x00, 7, 0}, -1, 0, "vestra : Invalid frame_len 131073 \n"},
        BlockCase{"AllOnes", Bytes(64, 0xff), -1, 0,
                  text("vestra : Invalid frame_len %ld \n", static_cast<long>(0xffffffffU))}),
    [](const auto &row) { return row.param.name; });

TEST_F(DecoderTest, NoBlockAtAllIsAnError) {
    EXPECT_EQ(decode_file(nullptr, 12), -1);
    EXPECT_THAT(take_log(),
                ElementsAre(LogLine{kError, "decode_file", text("vestra:Invalid I/P pBuf=%p tfs=12\n", nullptr)}));
    unsigned char byte = 0;
    EXPECT_EQ(decode_file(&byte, 0), -1);
    EXPECT_EQ(take_log().size(), 1U);
}

TEST_F(DecoderTest, BlockIsLeftAsItWas) {
    Bytes bytes = block({frame(kSwitchFrame, sample(5, 77, "player")), Bytes{7, 9, 1}});
    const Bytes before = bytes;
    EXPECT_EQ(decode_file(bytes.data(), static_cast<unsigned>(bytes.size())), 7);
    EXPECT_EQ(bytes, before);
}

/* ------------------------------ Walk over messages ------------------------------ */

struct FrameCase {
    const char *name;
    Bytes bytes;
    const char *function;
    int priority;
    std::string line;  // of the walker
};

class FrameCheck : public DecoderTest, public ::testing::WithParamInterface<FrameCase> {};

TEST_P(FrameCheck, IsNumberedInTheLog) {
    FrameCase row = GetParam();
    retIntStruct result = {5, 5, 5};
    const auto walk = strcmp(row.function, "decode_frame") == 0 ? decode_frame : decode_frame_8;
    walk(::length(row.bytes), chars(row.bytes), 4711, &result);
    EXPECT_NE(result.status, 0);
    const auto lines = take_log();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), (LogLine{row.priority, row.function, row.line}));
    EXPECT_THAT(list(), IsEmpty());
}

std::string corrupted(const char *number, int index, int frame_len, int type, int offset) {
    return text(
        "vestra : %s Corrupted frame at file_index:4711, frame index:%d, frame_len:%d, messageType:%d, offset:%d\n",
        number, index, frame_len, type, offset);
}
std::string wrong_core(const char *number, int frame_len, int core) {
    return text("vestra : %s Invalid core id at file_index:4711, frame_index:0, frame_len:%d, core_id:%d offset:0\n",
                number, frame_len, core);
}

INSTANTIATE_TEST_SUITE_P(
    , FrameCheck,
    ::testing::Values(
        FrameCase{"SwitchCore4", {7, 4}, "decode_frame", kError, wrong_core("2.", 2, 4)},
        FrameCase{"SwitchCore255", {7, 255, 1}, "decode_frame", kError, wrong_core("2.", 3, 255)},
        FrameCase{"SwitchTypeCutShort", {7, 0, 0x81}, "decode_frame", kWarning, corrupted("3.", 2, 3, 0, 0)},
        FrameCase{"SwitchBodyMissing", {7, 0, 2}, "decode_frame", kWarning, corrupted("4.", 2, 3, 2, 1)},
        FrameCase{"SwitchType0", {7, 0, 0, 1}, "decode_frame", kWarning, corrupted("5.", 2, 4, 0, 1)},
        FrameCase{"SwitchType3", {7, 3, 3, 1}, "decode_frame", kWarning, corrupted("5.", 2, 4, 3, 1)},
        FrameCase{"SwitchTypeOneIn33Bits",
                  {7, 0, 0x81, 0x80, 0x80, 0x80, 0x10},
                  "decode_frame",
                  kWarning,
                  corrupted("5.", 2, 7, 1, 5)},
        FrameCase{"InfoEmpty",
                  {8},
                  "decode_frame_8",
                  kWarning,
                  "vestra : 1. frame_8 Empty frame at file_index:4711, frame_index:0, frame_len:1, offset:0\n"},
        FrameCase{"InfoOtherType",
                  {0x87, 0},
                  "decode_frame_8",
                  kWarning,
                  "vestra : frame_8 Invalid frametype:-121 Empty frame at file_index:4711, frame_index:0, frame_len:2, "
                  "offset:0\n"},
        FrameCase{"InfoCore4", {8, 4}, "decode_frame_8", kWarning, wrong_core("2. frame_8", 2, 4)},
        FrameCase{"InfoTypeCutShort", {8, 0, 0x80}, "decode_frame_8", kWarning, corrupted("3. frame_8", 2, 3, 0, 0)},
        FrameCase{"InfoBodyMissing", {8, 0, 1}, "decode_frame_8", kWarning, corrupted("4. frame_8", 2, 3, 1, 1)},
        FrameCase{"InfoType9", {8, 0, 9, 1}, "decode_frame_8", kWarning, corrupted("5. frame_8", 2, 4, 9, 1)}),
    [](const auto &row) { return row.param.name; });

TEST_F(DecoderTest, OtherTypesAreIgnoredByTheSwitchWalker) {
    Bytes other = {8, 9, 1};
    retIntStruct result = {5, 6, 7};
    decode_frame(3, chars(other), 0, &result);
    decode_frame(1, chars(other), 0, &result);
    EXPECT_EQ(result.status, 5);
    EXPECT_THAT(take_log(), IsEmpty());
}

TEST_F(DecoderTest, FrameWalkedToItsEndSaysSo) {
    Bytes bytes = frame(kSwitchFrame, sample(5, 77, "player"), sample(6, 78, "player"));
    retIntStruct result;
    decode_frame(::length(bytes), chars(bytes), 0, &result);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.length, 0);
    EXPECT_THAT(take_log(), IsEmpty());
    EXPECT_EQ(list().size(), 2U);
}

TEST_F(DecoderTest, MessagesBeforeADamagedOneKeepTheirEffect) {
    Bytes bad = frame(kSwitchFrame, sample(5, 77, "player"));
    const int good = ::length(bad);
    bad.push_back(1);
    bad.push_back(0x80);
    decode(block({bad, frame(kSwitchFrame, sample(6, 78, "later"))}));
    EXPECT_TRUE(take_line({kWarning, "decode_frame",
                           text("vestra : 4. Corrupted frame at file_index:4, frame index:%d, frame_len:%d, "
                                "messageType:1, offset:1\n",
                                good, good + 2)}));
    ASSERT_EQ(list().size(), 2U);
    EXPECT_EQ(list()[0].name, "later");
    EXPECT_EQ(list()[1].name, "player");
}

/* ------------------------------ Cut messages ------------------------------ */

// The bytes of a message, field by field: what the cuts below fall into. A string is two fields, its length and its
// bytes.
struct Field {
    Bytes bytes;
    bool is_length, is_bytes;
};

Bytes varint(uint64_t value) {
    Bytes bytes;
    for (; value >= 0x80; value >>= 7) bytes.push_back(static_cast<uint8_t>(value | 0x80));
    bytes.push_back(static_cast<uint8_t>(value));
    return bytes;
}

std::vector<Field> message_fields(int count, const std::string &name) {
    std::vector<Field> fields;
    for (int i = 0; i < count; ++i) {
        if (i == 3) {
            fields.push_back({varint(name.size()), true, false});
            fields.push_back({Bytes(name.begin(), name.end()), false, true});
        } else {
            fields.push_back({varint(uint64_t{7} << (3 * i % 40)), false, false});
        }
    }
    return fields;
}

struct Cut {
    int elements = 0;  // whole ones, the per-core varints not counted
    int cores = -1;    // whole varints of the per-core block; -1: did not get there
    int consumed = 0;  // bytes of whole fields
    bool in_field = false;
    bool in_length = false, in_bytes = false;
};

// What a reader meets that gets `size` bytes of the body.
Cut cut_at(const std::vector<Field> &fields, int elements, size_t size) {
    Cut cut;
    size_t behind = 0;
    for (const Field &field : fields) {
        behind += field.bytes.size();
        const bool in_cores = cut.elements == elements;
        if (in_cores && cut.cores < 0) cut.cores = 0;
        if (behind > size) {
            const bool started = behind - field.bytes.size() < size;
            cut.in_length = field.is_length;
            cut.in_bytes = field.is_bytes;
            cut.in_field = started || field.is_bytes || in_cores;
            return cut;
        }
        cut.consumed += static_cast<int>(field.bytes.size());
        if (in_cores) {
            ++cut.cores;
        } else if (!field.is_length) {
            ++cut.elements;
        }
    }
    return cut;
}

// What decoding a frame with the first `size` bytes of the body must log, the readers' own lines left out.
std::vector<LogLine> lines_of_cut(const std::vector<Field> &fields, bool info, size_t size) {
    const int elements = info ? 18 : 12;
    const int frame_len = 3 + static_cast<int>(size);
    const Cut cut = cut_at(fields, elements, size);
    const std::string at = text(" at frame_index:3, frame_len:%d, messageType:1, offset:%d", frame_len, cut.consumed);
    const char *decoder = info ? "decode_cpumeminfoFrame" : "decode_switchFrame";
    const std::string kind = info ? "cpumeminfo " : "";
    std::vector<LogLine> lines;
    const auto expect = [&](const std::string &number, const std::string &end) {
        lines.push_back({kWarning, decoder, "vestra : " + number + kind + "Corrupted" + at + end + "\n"});
    };
    if (cut.cores >= 0) {
        const char *const kNumbers[] = {"10. ", "11. ", "12 .", "13 .", "14 ."};
        expect(kNumbers[cut.cores % 5], " ");
        expect("15. ", ", elm_count:12 ");
    } else {
        if (cut.in_field && cut.in_length) expect(info ? "7. " : "8. ", "");
        if (cut.in_field && cut.in_bytes) expect(info ? "8. " : "9. ", " ");
        if (cut.in_field && !cut.in_length && !cut.in_bytes) expect(info ? "6. " : "7. ", " ");
        expect(info ? "9. " : "", text(", elm_count:%d ", cut.elements));
    }
    lines.push_back({kWarning, info ? "decode_frame_8" : "decode_frame",
                     text("vestra : 4. %sCorrupted frame at file_index:4, frame index:2, frame_len:%d, messageType:1, "
                          "offset:1\n",
                          info ? "frame_8 " : "", frame_len)});
    return lines;
}

class CutMessage : public DecoderTest, public ::testing::WithParamInterface<bool> {};

TEST_P(CutMessage, StoresNothingAndSaysWhereAtEveryLength) {
    const bool info = GetParam();
    const std::vector<Field> fields = message_fields(info ? 18 : 12 + 20, "zygote64");
    Bytes body;
    for (const Field &field : fields) body.insert(body.end(), field.bytes.begin(), field.bytes.end());
    const uint8_t type = info ? kInfoFrame : kSwitchFrame;
    for (size_t size = 0; size < body.size(); ++size) {
        SCOPED_TRACE(size);
        Bytes frame = {type, 0, 1};
        frame.insert(frame.end(), body.begin(), body.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_EQ(decode(block({frame})), type);
        std::vector<LogLine> lines;
        for (const LogLine &line : take_log(kWarning)) {
            if (line.function.find("get_unpacked") != 0) lines.push_back(line);
        }
        EXPECT_EQ(lines, lines_of_cut(fields, info, size));
        EXPECT_EQ(maxTimeValue, -1);
        EXPECT_THAT(list(), IsEmpty());
    }
    Bytes whole = {type, 0, 1};
    whole.insert(whole.end(), body.begin(), body.end());
    decode(block({whole}));
    EXPECT_THAT(take_log(kWarning), IsEmpty());
    EXPECT_EQ(maxTimeValue, 7);
}

INSTANTIATE_TEST_SUITE_P(, CutMessage, ::testing::Bool(),
                         [](const auto &row) { return row.param ? "Information" : "Switch"; });

TEST_F(DecoderTest, AbsurdNameLengthsEndTheMessage) {
    for (const uint64_t count : {uint64_t{0}, uint64_t{0x80000000}, uint64_t{1} << 32 | 4, ~uint64_t{0}}) {
        Bytes body = {7, 0, 1, 5, 0, 77};
        const Bytes number = varint(count);
        body.insert(body.end(), number.begin(), number.end());
        body.insert(body.end(), 40, 1);
        decode(block({body}));
        const auto lines = take_log(kWarning);
        const size_t own = count == 0 ? 0 : 1;  // the reader's own line; none for nothing
        ASSERT_EQ(lines.size(), 3 + own) << count;
        EXPECT_EQ(lines[own].text,
                  text("vestra : 9. Corrupted at frame_index:3, frame_len:%d, messageType:1, offset:%d \n",
                       ::length(body), 3 + ::length(number)));
    }
    EXPECT_EQ(maxTimeValue, -1);
}

}  // namespace

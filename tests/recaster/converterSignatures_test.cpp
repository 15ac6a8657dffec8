// recaster::converter signature conversions called directly: raw to
// markforge, markforge to raw, and the DER walk, with their exact trail
// entries and trace lines.
#include <random>
#include <string>
#include <vector>

#include "containerBlock.h"
#include "converter.h"
#include "fixtures.h"
#include "testSupport.h"

using recaster::converter;
using testblocks::Block;
using testblocks::BlockBytes;
using testblocks::Bytes;
using testblocks::Pattern;
using testblocks::SampleRecord;
using testsupport::FileExists;
using testsupport::ReadBytes;
using testsupport::TempDir;
using testsupport::TrailLines;
using testsupport::WriteBytes;
using Lines = std::vector<std::string>;

namespace {

const std::string CONVERTER_CPP = "recaster/converter.cpp";
const std::string HEADER_CPP = "libmarkforge/header.cpp";
const std::string FROM_BIN = "bool recaster::converter::ConvertSigFromBin(const string&, const string&)";
const std::string FROM_MF = "bool recaster::converter::ConvertSigFromMF(const string&, const string&)";
const std::string FROM_DER = "bool recaster::converter::ConvertSigFromDER(const string&, const string&)";
const std::string CREATE = "bool markforge::header::CreateFromFilePath(const string&, std::ifstream&, uint32_t)";

// One line of TrailLines(): "function|file|message".
const auto Entry = testsupport::TrailLine;

// DER element: tag byte, short or long length, contents.
Bytes Der(uint8_t tag, const Bytes& contents)
{
    Bytes out{tag};
    if (contents.size() < 0x80) {
        out.push_back(uint8_t(contents.size()));
    } else {
        out.push_back(0x81);
        out.push_back(uint8_t(contents.size()));
    }
    out.insert(out.end(), contents.begin(), contents.end());
    return out;
}

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes Integer(const Bytes& contents) { return Der(0x02, contents); }
Bytes Sequence(const Bytes& contents) { return Der(0x30, contents); }

// `size` content bytes starting with `first`, then bytes 0x80 | i.
Bytes Value(size_t size, uint8_t first)
{
    Bytes out(size);
    for (size_t i = 0; i < size; ++i) out[i] = uint8_t(0x80 | i);
    if (size) out[0] = first;
    return out;
}

Bytes Zeros(size_t n) { return Bytes(n, 0); }

Bytes DropFirst(Bytes bytes)
{
    bytes.erase(bytes.begin());
    return bytes;
}

class ConverterSignatures : public testsupport::FrameworkTest {
protected:
    std::string Put(const Bytes& bytes, const std::string& name = "in.bin")
    {
        const std::string path = dir.file(name);
        WriteBytes(path, bytes);
        return path;
    }
    std::string Out(const std::string& name = "out.bin") { return dir.file(name); }

    // Runs the DER conversion on `der`; gives the output bytes and the
    // standard output it printed.
    bool FromDer(const Bytes& der, Bytes& output, std::string& printed)
    {
        testing::internal::CaptureStdout();
        const bool result = c.ConvertSigFromDER(Put(der, "in.der"), Out("out.raw"));
        printed = testing::internal::GetCapturedStdout();
        output = ReadBytes(Out("out.raw"));
        return result;
    }

    TempDir dir;
    converter c;
};

// ---- Raw to markforge ------------------------------------------------------

TEST_F(ConverterSignatures, RawSignatureBecomesALoneHeaderBlock)
{
    const Bytes signature = Pattern(64, 3);
    ASSERT_TRUE(c.ConvertSigFromBin(Put(signature), Out()));
    Block expected;
    expected.signature = signature;
    expected.digestLength = 0;
    EXPECT_EQ(ReadBytes(Out()), BlockBytes(expected));
    EXPECT_TRUE(TrailLines().empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(ConverterSignatures, RawSignaturesOfAnyLengthUpToTheBodyAreWritten)
{
    for (size_t size : {size_t(0), size_t(1), size_t(40), size_t(513), size_t(4072)}) {
        SCOPED_TRACE(size);
        const Bytes signature = Pattern(size, 3);
        ASSERT_TRUE(c.ConvertSigFromBin(Put(signature), Out()));
        const Bytes written = ReadBytes(Out());
        ASSERT_EQ(written.size(), 4096u);
        EXPECT_EQ(testblocks::PeekBe32(written, 8), size);
        EXPECT_EQ(Bytes(written.begin() + 12, written.begin() + 12 + long(size)), signature);
    }
}

TEST_F(ConverterSignatures, RawSignatureReadInChunksKeepsEveryByte)
{
    // Larger than one 4096-byte chunk: all of it reaches the header, which
    // then refuses to lay it out.
    const Bytes signature = Pattern(4097);
    EXPECT_THROW(c.ConvertSigFromBin(Put(signature), Out()), std::length_error);
}

TEST_F(ConverterSignatures, MissingRawInputIsReported)
{
    EXPECT_FALSE(c.ConvertSigFromBin(Out("missing.bin"), Out()));
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(), (Lines{Entry(FROM_BIN, CONVERTER_CPP, "Unable to read input signature file")}));
    EXPECT_FALSE(FileExists(Out()));
}

TEST_F(ConverterSignatures, RawConversionAfterAnEarlierFailureStops)
{
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(c.ConvertSigFromBin(Put(Pattern(64)), Out()));
    EXPECT_EQ(TrailLines(), (Lines{Entry(FROM_BIN, CONVERTER_CPP, "Unable to continue from previous error")}));
    EXPECT_FALSE(FileExists(Out()));
}

TEST_F(ConverterSignatures, RawToUnopenableOutputFailsAfterTheHeaderSaysNothing)
{
    EXPECT_FALSE(c.ConvertSigFromBin(Put(Pattern(64)), Out("no/such/dir/out.hdr")));
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(), (Lines{Entry(FROM_BIN, CONVERTER_CPP, "Boolean return value failed.")}));
}

TEST_F(ConverterSignatures, OutputFormatIsNotConsulted)
{
    const std::string input = Put(Pattern(64, 8));
    Bytes first;
    for (const char* format : {"raw", "pem", "markforge"}) {
        SCOPED_TRACE(format);
        ASSERT_TRUE(c.SetOFormat(format));
        ASSERT_TRUE(c.ConvertSigFromBin(input, Out()));
        if (first.empty()) first = ReadBytes(Out());
        EXPECT_EQ(ReadBytes(Out()), first);
    }
}

// ---- markforge to raw ------------------------------------------------------

TEST_F(ConverterSignatures, HeaderSignatureIsWrittenRaw)
{
    for (size_t size : {size_t(60), size_t(256), size_t(512)}) {
        SCOPED_TRACE(size);
        Block b;
        b.signature = Pattern(size, 4);
        ASSERT_TRUE(c.ConvertSigFromMF(Put(BlockBytes(b)), Out()));
        EXPECT_EQ(ReadBytes(Out()), b.signature);
    }
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(ConverterSignatures, HeaderWithComponentsIsLoadedAndClosedCleanly)
{
    Block b;
    b.signature = Pattern(512, 4);
    b.records = {SampleRecord(0), SampleRecord(1)};
    {
        converter local;
        ASSERT_TRUE(local.ConvertSigFromMF(Put(BlockBytes(b)), Out()));
    }
    EXPECT_EQ(ReadBytes(Out()), b.signature);
    EXPECT_FALSE(lbGlobal.errorFlag);  // no object was left open
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(ConverterSignatures, ShortHeaderSignatureCannotBeReadBack)
{
    ASSERT_TRUE(c.ConvertSigFromBin(Put(Pattern(40)), Out("sig.hdr")));
    EXPECT_FALSE(c.ConvertSigFromMF(Out("sig.hdr"), Out()));
    EXPECT_EQ(TrailLines(), (Lines{Entry(CREATE, HEADER_CPP, "Corrupted header."),
                                   Entry(FROM_MF, CONVERTER_CPP, "Boolean return value failed.")}));
    EXPECT_FALSE(FileExists(Out()));
}

TEST_F(ConverterSignatures, MissingMarkforgeInputIsReportedByTheHeader)
{
    EXPECT_FALSE(c.ConvertSigFromMF(Out("missing.hdr"), Out()));
    EXPECT_EQ(TrailLines(), (Lines{Entry(CREATE, HEADER_CPP, "Unable to read input file. "),
                                   Entry(FROM_MF, CONVERTER_CPP, "Boolean return value failed.")}));
}

TEST_F(ConverterSignatures, MarkforgeToUnopenableOutputFailsWithoutAMessage)
{
    Block b;
    EXPECT_FALSE(c.ConvertSigFromMF(Put(BlockBytes(b)), Out("no/such/dir/out.raw")));
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(ConverterSignatures, MarkforgeAfterAnEarlierFailureStops)
{
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(c.ConvertSigFromMF(Put(BlockBytes(Block{})), Out()));
    EXPECT_EQ(TrailLines(), (Lines{Entry(FROM_MF, CONVERTER_CPP, "Unable to continue from previous error")}));
    EXPECT_FALSE(FileExists(Out()));
}

// ---- DER ---------------------------------------------------------------------

TEST_F(ConverterSignatures, SequenceOfTwoIntegersBecomesTwoFields)
{
    const Bytes r = Value(33, 0x00);  // sign byte, then 32 value bytes
    const Bytes s = Value(31, 0x7F);
    Bytes output;
    std::string printed;
    ASSERT_TRUE(FromDer(Sequence(Cat({Integer(r), Integer(s)})), output, printed));
    EXPECT_EQ(printed, "type=16, len=68\ntype=2, len=33\ntype=2, len=31\n");
    EXPECT_EQ(output, Cat({DropFirst(r), Zeros(1), s}));
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(ConverterSignatures, IntegerWidthsFollowThePaddingAndSignByteRule)
{
    struct Case {
        Bytes contents;
        Bytes expected;
    };
    const Case cases[] = {
        {Value(32, 0x00), Value(32, 0x00)},                     // 32 bytes keep their leading zero
        {Value(1, 0x00), Zeros(32)},                            // a lone zero is padded, not dropped
        {Bytes(), Zeros(32)},                                   // empty contents: all padding
        {Value(5, 0x80), Cat({Zeros(27), Value(5, 0x80)})},     // short value: left-padded
        {Value(40, 0x12), Value(40, 0x12)},                     // long value: passes through
        {Value(41, 0x00), DropFirst(Value(41, 0x00))},          // ... less its sign byte
        {Value(33, 0x01), Value(33, 0x01)},                     // no sign byte: nothing dropped
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.contents.size());
        Bytes output;
        std::string printed;
        ASSERT_TRUE(FromDer(Sequence(Integer(test.contents)), output, printed));
        EXPECT_EQ(output, test.expected);
    }
}

TEST_F(ConverterSignatures, FirstElementNotASequencePrintsOneLineAndWritesNothing)
{
    Bytes output{1};
    std::string printed;
    ASSERT_TRUE(FromDer(Cat({Integer(Value(3, 1)), Sequence(Integer(Value(3, 1)))}), output, printed));
    EXPECT_EQ(printed, "type=2, len=3\n");
    EXPECT_TRUE(FileExists(Out("out.raw")));
    EXPECT_TRUE(output.empty());
    EXPECT_TRUE(TrailLines().empty());
}

TEST_F(ConverterSignatures, EmptyDerFileWritesAnEmptyFile)
{
    Bytes output{1};
    std::string printed;
    ASSERT_TRUE(FromDer(Bytes(), output, printed));
    EXPECT_EQ(printed, "");
    EXPECT_TRUE(FileExists(Out("out.raw")));
    EXPECT_TRUE(output.empty());
}

TEST_F(ConverterSignatures, SequencesFollowingEachOtherAreAllWalked)
{
    Bytes output;
    std::string printed;
    ASSERT_TRUE(FromDer(Cat({Sequence(Integer({7})), Sequence(Integer({8}))}), output, printed));
    EXPECT_EQ(printed, "type=16, len=3\ntype=2, len=1\ntype=16, len=3\ntype=2, len=1\n");
    EXPECT_EQ(output, Cat({Zeros(31), {7}, Zeros(31), {8}}));
}

TEST_F(ConverterSignatures, NestedSequenceIsEnteredAndItsIntegerEndsTheWalk)
{
    Bytes output;
    std::string printed;
    ASSERT_TRUE(FromDer(Sequence(Cat({Integer({1}), Sequence(Cat({Integer({2}), Integer({3})}))})), output, printed));
    EXPECT_EQ(printed, "type=16, len=11\ntype=2, len=1\ntype=16, len=6\ntype=2, len=1\n");
    EXPECT_EQ(output, Cat({Zeros(31), {1}}));
}

TEST_F(ConverterSignatures, OtherElementInsideTheSequenceLeavesIt)
{
    // The OCTET STRING's contents are read as the next element: here a
    // lone INTEGER, which ends the walk.
    Bytes output;
    std::string printed;
    ASSERT_TRUE(FromDer(Sequence(Cat({Integer({5}), Der(0x04, Integer({6}))})), output, printed));
    EXPECT_EQ(printed, "type=16, len=8\ntype=2, len=1\ntype=4, len=3\ntype=2, len=1\n");
    EXPECT_EQ(output, Cat({Zeros(31), {5}}));
}

TEST_F(ConverterSignatures, LengthsRunningPastTheInputTakeOnlyTheBytesThatAreThere)
{
    // SEQUENCE claims 68 bytes, its first INTEGER 33; only 11 content bytes follow.
    const Bytes der = Cat({{0x30, 0x44, 0x02, 0x21}, Value(11, 0x00)});
    Bytes output;
    std::string printed;
    ASSERT_TRUE(FromDer(der, output, printed));
    EXPECT_EQ(printed, "type=16, len=68\ntype=2, len=33\n");
    EXPECT_EQ(output, Cat({Zeros(21), Value(11, 0x00)}));
}

TEST_F(ConverterSignatures, UnreadableHeaderEndsTheWalkSilently)
{
    for (const Bytes& der : {Bytes{0x30}, Bytes{0x1F}, Bytes{0x30, 0x84, 0x01}, Bytes{0x02, 0x80, 0x00}}) {
        SCOPED_TRACE(der.size());
        Bytes output{1};
        std::string printed;
        ASSERT_TRUE(FromDer(der, output, printed));
        EXPECT_EQ(printed, "");
        EXPECT_TRUE(output.empty());
    }
}

TEST_F(ConverterSignatures, IndefiniteLengthSequenceIsWalkedAsItsElements)
{
    Bytes output;
    std::string printed;
    ASSERT_TRUE(FromDer({0x30, 0x80, 0x02, 0x01, 0x05, 0x00, 0x00}, output, printed));
    EXPECT_EQ(printed, "type=16, len=0\ntype=2, len=1\n");
    EXPECT_TRUE(output.empty());
}

TEST_F(ConverterSignatures, EmptySequencesAreWalkedOneAfterAnother)
{
    Bytes output;
    std::string printed;
    ASSERT_TRUE(FromDer({0x30, 0x00, 0x30, 0x00, 0x30, 0x03, 0x02, 0x01, 0x09}, output, printed));
    EXPECT_EQ(printed, "type=16, len=0\ntype=16, len=0\ntype=16, len=3\ntype=2, len=1\n");
    EXPECT_EQ(output, Cat({Zeros(31), {9}}));
}

TEST_F(ConverterSignatures, AnyInputEndsTheWalk)
{
    // Random bytes, biased toward SEQUENCE and INTEGER tags and long-form
    // lengths: the walk always returns and never writes more than it could
    // have taken from the input plus padding.
    std::mt19937 random(12345);
    const uint8_t interesting[] = {0x30, 0x02, 0x80, 0x81, 0x82, 0x84, 0x00, 0x1F, 0xFF, 0x7F};
    for (int round = 0; round < 500; ++round) {
        Bytes der(random() % 48);
        for (uint8_t& byte : der)
            byte = random() % 2 ? interesting[random() % sizeof interesting] : uint8_t(random());
        Bytes output;
        std::string printed;
        ASSERT_TRUE(FromDer(der, output, printed)) << round;
        ASSERT_LE(output.size(), der.size() * 33) << round;
    }
}

TEST_F(ConverterSignatures, MissingDerInputIsReported)
{
    testing::internal::CaptureStdout();
    EXPECT_FALSE(c.ConvertSigFromDER(Out("missing.der"), Out()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(TrailLines(), (Lines{Entry(FROM_DER, CONVERTER_CPP, "Unable to read input signature file")}));
    EXPECT_FALSE(FileExists(Out()));
}

TEST_F(ConverterSignatures, DerAfterAnEarlierFailureStops)
{
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(c.ConvertSigFromDER(Put(Sequence(Integer({1}))), Out()));
    EXPECT_EQ(TrailLines(), (Lines{Entry(FROM_DER, CONVERTER_CPP, "Unable to continue from previous error")}));
    EXPECT_FALSE(FileExists(Out()));
}

TEST_F(ConverterSignatures, DerToUnopenableOutputFailsWithoutAMessage)
{
    testing::internal::CaptureStdout();
    EXPECT_FALSE(c.ConvertSigFromDER(Put(Sequence(Integer({1}))), Out("no/such/dir/out.raw")));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "type=16, len=3\ntype=2, len=1\n");
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(TrailLines().empty());
}

}  // namespace

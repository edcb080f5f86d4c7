// Single bytes over a pipe: what a read reports for a byte, for a writer that
// has gone, for an empty non-blocking pipe and for a descriptor that cannot
// be read.
#include "platform/PipeBytes.h"

#include "tests/support/Descriptor.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <fcntl.h>
#include <unistd.h>

namespace {

using platform::PipeBytes;
using testsupport::Descriptor;

class PipeBytesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe(ends.data()), 0);
        readEnd = Descriptor(ends[0]);
        writeEnd = Descriptor(ends[1]);
    }

    Descriptor readEnd;
    Descriptor writeEnd;
};

TEST_F(PipeBytesTest, AByteWrittenIsTheByteRead)
{
    PipeBytes::write(writeEnd.get(), 0xE9);
    PipeBytes::write(writeEnd.get(), '\n');
    unsigned char byte = 0;
    ASSERT_EQ(PipeBytes::read(readEnd.get(), byte), PipeBytes::Read::Byte);
    EXPECT_EQ(byte, 0xE9);
    ASSERT_EQ(PipeBytes::read(readEnd.get(), byte), PipeBytes::Read::Byte);
    EXPECT_EQ(byte, '\n');
}

TEST_F(PipeBytesTest, AWriterThatHasClosedItsEndMeansNoData)
{
    writeEnd.close();
    unsigned char byte = 'x';
    EXPECT_EQ(PipeBytes::read(readEnd.get(), byte), PipeBytes::Read::NoData);
}

TEST_F(PipeBytesTest, AnEmptyNonBlockingPipeMeansNoDataRatherThanAFailure)
{
    ASSERT_EQ(::fcntl(readEnd.get(), F_SETFL, O_NONBLOCK), 0);
    unsigned char byte = 'x';
    EXPECT_EQ(PipeBytes::read(readEnd.get(), byte), PipeBytes::Read::NoData);
}

TEST_F(PipeBytesTest, ADescriptorThatCannotBeReadIsAFailure)
{
    unsigned char byte = 'x';
    // The write end of a pipe cannot be read (EBADF).
    EXPECT_EQ(PipeBytes::read(writeEnd.get(), byte), PipeBytes::Read::Failed);
}

TEST_F(PipeBytesTest, APauseWaitsAtLeastTheTimeAsked)
{
    const auto start = std::chrono::steady_clock::now();
    PipeBytes::pause(20000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(20000));
}

}  // namespace

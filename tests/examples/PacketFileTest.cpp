#include "PacketFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "StreamBuilder.h"
#include "TempDirectory.h"

namespace {

using made::Bytes;
using tsmon::InputError;
using tsmon::PacketFile;

std::string MessageOf(const std::string& path)
{
    try {
        PacketFile file(path);
        tsmon::PacketBlock block;
        file.Read(block);
    } catch (const InputError& error) {
        return error.what();
    }
    return "no error";
}

Bytes ReadAll(PacketFile& file)
{
    Bytes packets;
    tsmon::PacketBlock block;
    bool more = true;
    while (more) {
        more = file.Read(block);
        const std::uint8_t* first = block.Packet(0);
        packets.insert(packets.end(), first, first + block.Count() * tsmon::PACKET_SIZE);
    }
    return packets;
}

TEST(PacketFileTest, SampleIsReadWhole)
{
    PacketFile file(TSMON_SAMPLE);
    EXPECT_EQ(ReadAll(file), made::ReadFile(TSMON_SAMPLE));
    EXPECT_EQ(file.Counts().packets, 6610U);
    EXPECT_EQ(file.Counts().bytes, 1242680U);
    EXPECT_EQ(file.Counts().Damaged(), 0U);
}

TEST(PacketFileTest, BlocksAreSmall)
{
    PacketFile file(TSMON_SAMPLE);
    tsmon::PacketBlock block;
    while (file.Read(block)) {
        ASSERT_LE(block.Count(), 80U);
    }
}

TEST(PacketFileTest, EmptyFileHasNoBytes)
{
    PacketFile file("/dev/null");
    EXPECT_TRUE(ReadAll(file).empty());
    EXPECT_EQ(file.Counts().bytes, 0U);
}

TEST(PacketFileTest, MissingFileIsNamedAsSuch)
{
    const made::TempDirectory directory;
    EXPECT_EQ(MessageOf(directory.Path("missing.ts")),
              "cannot be opened: No such file or directory");
}

TEST(PacketFileTest, DirectoryIsNamedAsSuch)
{
    const made::TempDirectory directory;
    EXPECT_EQ(MessageOf(directory.Path("")), "is a directory, not a transport stream file");
}

TEST(PacketFileTest, FailingReadIsNamedAsSuch)
{
    // Address 0 of a process is never mapped, so its memory file can be opened and not be read.
    EXPECT_EQ(MessageOf("/proc/self/mem"), "cannot be read: Input/output error");
}

TEST(PacketFileTest, FileNeverHasToBeWaitedFor)
{
    PacketFile file(TSMON_SAMPLE);
    EXPECT_TRUE(file.HasInput());
    ReadAll(file);
    EXPECT_TRUE(file.HasInput()) << "its end can be read at once";
}

TEST(PacketFileTest, PipeHasInputOnceItIsWrittenOrClosed)
{
    const made::TempDirectory directory;
    const std::string path = directory.Path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    PacketFile file(path);
    EXPECT_FALSE(file.HasInput()) << "nobody has opened it for writing yet";
    const int pipe = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    EXPECT_FALSE(file.HasInput());
    const Bytes packets = made::PlainPackets(20);
    ASSERT_EQ(write(pipe, packets.data(), packets.size()), static_cast<ssize_t>(packets.size()));
    EXPECT_TRUE(file.HasInput());
    tsmon::PacketBlock block;
    EXPECT_TRUE(file.Read(block));
    EXPECT_FALSE(file.HasInput());
    EXPECT_TRUE(file.Read(block)) << "an empty pipe is not at its end";
    EXPECT_EQ(block.Count(), 0U);
    close(pipe);
    EXPECT_TRUE(file.HasInput());
    EXPECT_FALSE(file.Read(block));
    EXPECT_EQ(file.Counts().packets, 20U);
}

TEST(PacketFileTest, StoppedFileGivesWhatItHeldBack)
{
    PacketFile file(TSMON_SAMPLE);
    tsmon::PacketBlock first;
    tsmon::PacketBlock rest;
    ASSERT_TRUE(file.Read(first));
    file.Stop(rest);
    EXPECT_EQ(first.Count() + rest.Count(), 64U);
    EXPECT_EQ(file.Counts().packets, 64U);
    EXPECT_EQ(file.Counts().Damaged(), 0U);
}

/// Makes a file the process's standard input for as long as it lives.
class StandardInput
{
 public:
    explicit StandardInput(const std::string& path) : m_before(dup(STDIN_FILENO))
    {
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_GE(dup2(file, STDIN_FILENO), 0);
        close(file);
    }

    ~StandardInput()
    {
        dup2(m_before, STDIN_FILENO);
        close(m_before);
    }

    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

 private:
    int m_before;
};

TEST(PacketFileTest, DashIsStandardInput)
{
    const made::TempDirectory directory;
    const made::Bytes packets = made::PlainPackets(10);
    const StandardInput input(directory.Write("a.ts", packets));
    tsmon::PacketFile file(tsmon::STANDARD_INPUT);
    tsmon::PacketBlock block;
    while (file.Read(block)) {
    }
    EXPECT_EQ(file.Counts().packets, 10U);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFL) & O_NONBLOCK, 0) << "who shares it still waits";
    EXPECT_EQ(tsmon::SizeOf(tsmon::STANDARD_INPUT), packets.size());
}

TEST(PacketFileTest, SizeIsKnownOfRegularFilesOnly)
{
    const made::TempDirectory directory;
    EXPECT_EQ(tsmon::SizeOf(directory.Write("a.ts", made::PlainPackets(3))),
              3 * tsmon::PACKET_SIZE);
    EXPECT_FALSE(tsmon::SizeOf(directory.Path("")).has_value());
    EXPECT_FALSE(tsmon::SizeOf(directory.Path("missing")).has_value());
}

} // namespace

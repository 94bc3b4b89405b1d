// Trace files: line layout and budget, size-based rotation, the
// file-system-full state and the type mask.

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "qv_daemon.h"
#include "qv_test_util.h"
#include "qv_trace_private.h"

using qvtest::read_file;
using qvtest::read_lines;
using qvtest::TempDir;

namespace
{

class TraceTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        progname = const_cast<char *>("mydaemon");
        gethostname(hostname, sizeof(hostname));
    }
    void TearDown() override
    {
        qv_trace_fputs_fn = fputs;
        qv_trace_statfs_fn = statfs;
        progname = nullptr;
    }
    std::string path(const std::string &name = "t.log") const { return dir.file(name); }
    TempDir dir;
};

void write_file(const std::string &p, const std::string &content)
{
    FILE *f = fopen(p.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs(content.c_str(), f);
    fclose(f);
}

TEST_F(TraceTest, LineCarriesTimestampHostAndProgram)
{
    trace_file_t *tf = trace_file_open(path().c_str(), 1000000, 3);
    trace_cb(tf, TRUE, -1, "%s: name:%s", "fn", "abc");
    trace_cb(tf, TRUE, -1, "abc\n");
    trace_file_close(tf);

    auto lines = read_lines(path());
    ASSERT_EQ(lines.size(), 2u);
    std::regex layout(R"(^[A-Z][a-z]{2} [ 0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.[0-9]{6} )" +
                      std::string(hostname) + R"( \[mydaemon\]  fn: name:abc$)");
    EXPECT_TRUE(std::regex_match(lines[0], layout)) << lines[0];
    // A message that brings its own newline still ends the line with one.
    std::string all = read_file(path());
    EXPECT_EQ(all.substr(all.size() - 6), "  abc\n");
    EXPECT_EQ(all.find("\n\n"), std::string::npos);
    EXPECT_EQ(lines[1].substr(lines[1].size() - 5), "  abc");
}

TEST_F(TraceTest, LongMessageIsCutToTheBudget)
{
    trace_file_t *tf = trace_file_open(path().c_str(), 1000000, 3);
    std::string big(5000, 'x');
    char line[QV_TRACE_LINE_BUF];
    int len = 0;
    va_list none{};
    ASSERT_NE(trace_msg(tf, line, &len, big.c_str(), none), nullptr);
    EXPECT_EQ(len, 2047);
    EXPECT_EQ(line[2046], '\n');
    EXPECT_EQ(line[2047], '\0');
    trace_file_close(tf);
    EXPECT_EQ(read_file(path()).size(), 2047u);
}

TEST_F(TraceTest, OverlongProgramNameIsCutAndTheLineStillFits)
{
    std::string name(3000, 'p');
    progname = name.data();
    trace_file_t *tf = trace_file_open(path().c_str(), 1000000, 3);
    trace_cb(tf, TRUE, -1, "hello");
    trace_file_close(tf);
    std::string all = read_file(path());
    EXPECT_LE(all.size(), 2047u);
    EXPECT_EQ(all.back(), '\n');
}

TEST_F(TraceTest, RotatesBeforeTheLineThatWouldPassTheLimit)
{
    trace_file_t *tf = trace_file_open(path().c_str(), 100, 3);
    // 36 bytes of time, brackets and blanks, the host, the message, a newline.
    std::string msg(60 - 36 - strlen(hostname) - 1, 'm');
    for (int i = 0; i < 3; i++)
        trace_cb(tf, TRUE, -1, "%s", msg.c_str());
    EXPECT_EQ(tf->trace_size, 60u);
    trace_file_close(tf);

    // Three lines, two rotations: the live file and two numbered ones.
    EXPECT_EQ(read_lines(path()).size(), 1u);
    for (const char *old : {"t.log.0", "t.log.1"}) {
        auto lines = read_lines(path(old));
        ASSERT_EQ(lines.size(), 2u) << old;
        EXPECT_EQ(lines[1], "Rotating trace files");
    }
    EXPECT_FALSE(qvtest::file_exists(path("t.log.2")));
}

TEST_F(TraceTest, CountingStartsFromTheExistingFileSize)
{
    write_file(path(), std::string(950, 'o'));
    chmod(path().c_str(), 0640);
    trace_file_t *tf = trace_file_open(path().c_str(), 1000, 2);
    EXPECT_EQ(tf->trace_size, 950u);
    EXPECT_EQ(tf->trace_perms, 0640u);
    trace_cb(tf, TRUE, -1, "this line takes the count past the limit");
    trace_file_close(tf);
    EXPECT_EQ(read_file(path("t.log.0")), std::string(950, 'o') + "Rotating trace files\n");
    struct stat st;
    ASSERT_EQ(stat(path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(TraceTest, RotationShiftsNumberedFilesAndSkipsGaps)
{
    const std::string p = path();
    for (const char *n : {"", ".0", ".1", ".2", ".3"})
        write_file(p + n, std::string("was") + n);
    rotate_log(p.c_str(), 5);
    EXPECT_FALSE(qvtest::file_exists(p));
    EXPECT_EQ(read_file(p + ".0"), "was");
    EXPECT_EQ(read_file(p + ".1"), "was.0");
    EXPECT_EQ(read_file(p + ".2"), "was.1");
    EXPECT_EQ(read_file(p + ".3"), "was.2");

    // With P.1 missing: P.2 still moves up, nothing new appears at P.2.
    for (const char *n : {"", ".0", ".2", ".3"})
        write_file(p + n, std::string("now") + n);
    unlink((p + ".1").c_str());
    rotate_log(p.c_str(), 5);
    EXPECT_EQ(read_file(p + ".3"), "now.2");
    EXPECT_FALSE(qvtest::file_exists(p + ".2"));
    EXPECT_EQ(read_file(p + ".1"), "now.0");
    EXPECT_EQ(read_file(p + ".0"), "now");
}

TEST_F(TraceTest, OneFileKeptRenamesNothing)
{
    trace_file_t *tf = trace_file_open(path().c_str(), 50, 1);
    trace_cb(tf, TRUE, -1, "first");
    trace_cb(tf, TRUE, -1, "second");
    trace_file_close(tf);
    EXPECT_FALSE(qvtest::file_exists(path("t.log.0")));
    EXPECT_FALSE(qvtest::file_exists(path("t.log.-1")));
    auto lines = read_lines(path());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "Rotating trace files");
}

// The full-disk seam: fputs fails with ENOSPC while `full`, and statfs
// reports `room` bytes.
bool disk_full;
uint64_t disk_room;
int statfs_calls;

int fake_fputs(const char *s, FILE *fp)
{
    if (disk_full) {
        errno = ENOSPC;
        return EOF;
    }
    return fputs(s, fp);
}

int fake_statfs(const char *, struct statfs *buf)
{
    statfs_calls++;
    memset(buf, 0, sizeof(*buf));
    buf->f_bsize = 1;
    buf->f_bavail = disk_room;
    return 0;
}

TEST_F(TraceTest, FullFileSystemDropsLinesUntilThereIsRoom)
{
    qv_trace_fputs_fn = fake_fputs;
    qv_trace_statfs_fn = fake_statfs;
    trace_file_t *tf = trace_file_open(path().c_str(), 1000000, 3);
    trace_cb(tf, TRUE, -1, "kept 1");
    disk_full = true;
    trace_cb(tf, TRUE, -1, "lost to ENOSPC");
    EXPECT_TRUE(tf->trace_file_fs_full);
    EXPECT_EQ(statfs_calls, 0);

    disk_full = false;
    disk_room = 10; // less than a line
    trace_cb(tf, TRUE, -1, "dropped while full");
    EXPECT_EQ(statfs_calls, 1);
    EXPECT_TRUE(tf->trace_file_fs_full);

    disk_room = 1u << 20;
    trace_cb(tf, TRUE, -1, "kept 2");
    EXPECT_FALSE(tf->trace_file_fs_full);
    trace_cb(tf, TRUE, -1, "kept 3");
    EXPECT_EQ(statfs_calls, 2);
    uint32_t counted = tf->trace_size;
    trace_file_close(tf);

    auto lines = read_lines(path());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("kept 1"), std::string::npos);
    EXPECT_NE(lines[1].find("kept 2"), std::string::npos);
    EXPECT_NE(lines[2].find("kept 3"), std::string::npos);
    EXPECT_EQ(counted, read_file(path()).size());
}

TEST_F(TraceTest, OnlyDoLogWritesTheFile)
{
    trace_file_t *tf = trace_file_open(path().c_str(), 1000000, 3);
    trace_cb(tf, FALSE, -1, "nowhere");
    trace_cb(nullptr, TRUE, -1, "no handle");
    EXPECT_EQ(read_file(path()), "");
    trace_file_close(tf);
    trace_file_close(nullptr);
}

TEST_F(TraceTest, MaskOperationsTouchOnlyTheirBits)
{
    trace_file_t *tf = trace_file_open(path().c_str(), 1000000, 3);
    EXPECT_EQ(tf->trace_mask, 0u);
    trace_type_enable(tf, QV_TRACE_MODULE);
    trace_type_disable(tf, QV_TRACE_TIMER);
    EXPECT_EQ(tf->trace_mask, QV_TRACE_MODULE);
    EXPECT_TRUE(trace_type_is_enabled(tf, 0x12));
    EXPECT_FALSE(trace_type_is_enabled(tf, QV_TRACE_TIMER));
    trace_file_close(tf);
}

using TraceDeathTest = TraceTest;

TEST_F(TraceDeathTest, BadPathsAreFatal)
{
    EXPECT_DEATH(trace_file_open(nullptr, 1, 1),
                 "qv_trace.cpp:trace_file_open: assertion \"file_name\"");
    EXPECT_DEATH(trace_file_open(dir.path().c_str(), 1, 1),
                 "qv_trace.cpp:trace_file_open: assertion \"0\"");
    EXPECT_DEATH(trace_file_open(path("missing/t.log").c_str(), 1, 1),
                 "assertion \"traceptr->trace_fileptr\"");
}

TEST_F(TraceDeathTest, ReopenFailureAtRotationIsFatal)
{
    TempDir gone;
    std::string p = gone.file("t.log");
    trace_file_t *tf = trace_file_open(p.c_str(), 10, 2);
    EXPECT_DEATH(
        {
            std::filesystem::remove_all(gone.path());
            trace_cb(tf, TRUE, -1, "this rotates");
        },
        "qv_trace.cpp:trace_rotate: assertion \"traceptr->trace_fileptr\"");
    trace_file_close(tf);
}

} // namespace

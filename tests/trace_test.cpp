// Trace files: line layout and budget, size-based rotation, the
// file-system-full state and the type mask.

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "qv_test_daemon.h"
#include "qv_trace_private.h"

using qvtest::file_exists;
using qvtest::read_file;
using qvtest::read_lines;

namespace
{

class TraceTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        progname = const_cast<char *>("mydaemon");
        // A fixed host name keeps line lengths the same on every machine.
        snprintf(hostname, sizeof(hostname), "%s", "h1");
    }
    void TearDown() override
    {
        qv_trace_fputs_fn = fputs;
        qv_trace_statfs_fn = statfs;
        progname = nullptr;
    }
    std::string path(const std::string &suffix = "") const { return dir.file("t.log" + suffix); }
    trace_file_t *open(uint32_t size, uint32_t count) const
    {
        return trace_file_open(path().c_str(), size, count);
    }
    qvtest::TempDir dir;
};

void write_file(const std::string &p, const std::string &content)
{
    FILE *f = fopen(p.c_str(), "w");
    fputs(content.c_str(), f);
    fclose(f);
}

TEST_F(TraceTest, LineLayoutAndBudget)
{
    trace_file_t *tf = open(1000000, 3);
    trace_cb(tf, TRUE, -1, "%s: name:%s", "fn", "abc");
    trace_cb(tf, TRUE, -1, "abc\n"); // its own newline is not doubled
    trace_cb(tf, FALSE, -1, "nowhere");
    trace_cb(nullptr, TRUE, -1, "no handle");
    trace_cb(tf, TRUE, -1, "%s", std::string(5000, 'x').c_str());
    std::string name(3000, 'p'); // a prefix alone past the budget is cut
    progname = name.data();
    trace_cb(tf, TRUE, -1, "hello");
    trace_file_close(tf);

    auto lines = read_lines(path());
    ASSERT_EQ(lines.size(), 4u);
    std::regex layout(R"(^[A-Z][a-z]{2} [ 0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.[0-9]{6} )"
                      R"(h1 \[mydaemon\]  fn: name:abc$)");
    EXPECT_TRUE(std::regex_match(lines[0], layout)) << lines[0];
    EXPECT_EQ(lines[1].substr(lines[1].size() - 5), "  abc");
    EXPECT_EQ(lines[2].size() + 1, 2047u);
    EXPECT_EQ(lines[2].back(), 'x');
    EXPECT_LE(lines[3].size() + 1, 2047u);
    EXPECT_EQ(read_file(path()).back(), '\n');
}

TEST_F(TraceTest, RotatesBeforeTheLineThatWouldPassTheLimit)
{
    trace_file_t *tf = open(100, 3);
    // 36 bytes of time, brackets and blanks, 2 of host, the message, a newline.
    std::string msg(60 - 36 - 2 - 1, 'm');
    for (int i = 0; i < 3; i++)
        trace_cb(tf, TRUE, -1, "%s", msg.c_str());
    EXPECT_EQ(tf->trace_size, 60u);
    trace_file_close(tf);
    EXPECT_EQ(read_lines(path()).size(), 1u);
    for (const char *old : {".0", ".1"}) {
        auto lines = read_lines(path(old));
        ASSERT_EQ(lines.size(), 2u) << old;
        EXPECT_EQ(lines[1], "Rotating trace files");
    }
    EXPECT_FALSE(file_exists(path(".2")));
}

TEST_F(TraceTest, CountingStartsFromTheExistingFileSizeAndKeepsItsMode)
{
    write_file(path(), std::string(950, 'o'));
    chmod(path().c_str(), 0640);
    trace_file_t *tf = open(1000, 2);
    EXPECT_EQ(tf->trace_size, 950u);
    trace_cb(tf, TRUE, -1, "this line takes the count past the limit");
    trace_file_close(tf);
    EXPECT_EQ(read_file(path(".0")), std::string(950, 'o') + "Rotating trace files\n");
    struct stat st;
    ASSERT_EQ(stat(path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(TraceTest, RotationShiftsNumberedFilesSkipsGapsAndNeedsTwoFiles)
{
    for (const char *n : {"", ".0", ".1", ".2", ".3"})
        write_file(path(n), std::string("was") + n);
    rotate_log(path().c_str(), 5);
    EXPECT_FALSE(file_exists(path()));
    for (auto [n, was] :
         {std::pair{".0", "was"}, {".1", "was.0"}, {".2", "was.1"}, {".3", "was.2"}})
        EXPECT_EQ(read_file(path(n)), was);

    // With P.1 missing, P.2 still moves up and nothing new stands at P.2.
    for (const char *n : {"", ".0", ".2"})
        write_file(path(n), std::string("now") + n);
    unlink(path(".1").c_str());
    rotate_log(path().c_str(), 5);
    EXPECT_EQ(read_file(path(".3")), "now.2");
    EXPECT_FALSE(file_exists(path(".2")));
    EXPECT_EQ(read_file(path(".1")), "now.0");

    // One file kept: the same file is reopened and nothing is renamed.
    for (const char *n : {".0", ".1", ".3"})
        unlink(path(n).c_str());
    write_file(path(), "");
    trace_file_t *tf = open(50, 1);
    trace_cb(tf, TRUE, -1, "first");
    trace_cb(tf, TRUE, -1, "second");
    trace_file_close(tf);
    EXPECT_FALSE(file_exists(path(".0")));
    EXPECT_EQ(read_lines(path()).size(), 3u);
}

// The full-disk seam: fputs fails with ENOSPC while disk_full, and statfs
// reports disk_room bytes.
bool disk_full;
uint64_t disk_room;
int statfs_calls;

int fake_fputs(const char *s, FILE *fp)
{
    if (!disk_full)
        return fputs(s, fp);
    errno = ENOSPC;
    return EOF;
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
    trace_file_t *tf = open(1000000, 3);
    trace_cb(tf, TRUE, -1, "kept 1");
    disk_full = true;
    trace_cb(tf, TRUE, -1, "lost to ENOSPC");
    EXPECT_TRUE(tf->trace_file_fs_full);
    EXPECT_EQ(statfs_calls, 0);

    disk_full = false;
    disk_room = 10; // less than a line
    trace_cb(tf, TRUE, -1, "dropped while full");
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
    for (int i = 0; i < 3; i++)
        EXPECT_NE(lines[i].find("kept " + std::to_string(i + 1)), std::string::npos);
    EXPECT_EQ(counted, read_file(path()).size());
}

TEST_F(TraceTest, MaskOperationsTouchOnlyTheirBits)
{
    trace_file_t *tf = open(1000000, 3);
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
    EXPECT_DEATH(trace_file_open(dir.path().c_str(), 1, 1), "trace_file_open: assertion \"0\"");
    EXPECT_DEATH(trace_file_open(dir.file("no/t.log").c_str(), 1, 1),
                 "trace_file_open: assertion \"traceptr->trace_fileptr\"");
    // The folder vanishes under an open trace file: the reopen at rotation fails.
    trace_file_t *tf = open(10, 2);
    EXPECT_DEATH(
        {
            std::filesystem::remove_all(dir.path());
            trace_cb(tf, TRUE, -1, "this rotates");
        },
        "qv_trace.cpp:trace_rotate: assertion \"traceptr->trace_fileptr\"");
    trace_file_close(tf);
}

// A FIFO or a directory at the path reaches the open's fatal check, at start-up as well, and
// nothing waits for a FIFO's reader (the alarm ends a wait with no message).
TEST_F(TraceDeathTest, PathsThatAreNoRegularFileAreFatalAtStartUp)
{
    std::string fifo = dir.file("fifo.log");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (std::string bad : {fifo, dir.path()}) {
        qvtest::Daemon d;
        d.ctx.log_file_name = bad.data();
        EXPECT_DEATH((alarm(10), trace_file_open(bad.c_str(), 1, 1)),
                     "trace_file_open: assertion \"0\"")
            << bad;
        EXPECT_DEATH((alarm(10), d.start("mydaemon")), "trace_file_open: assertion \"0\"") << bad;
    }
    // A rotation that finds a FIFO in the file's place cannot reopen it.
    trace_file_t *tf = open(10, 1);
    EXPECT_DEATH(
        {
            alarm(10);
            unlink(path().c_str());
            mkfifo(path().c_str(), 0600);
            trace_cb(tf, TRUE, -1, "this rotates");
        },
        "trace_rotate: assertion \"traceptr->trace_fileptr\"");
    trace_file_close(tf);
}

} // namespace

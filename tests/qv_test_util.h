// Helpers shared by the test programs: temporary directories, whole-file
// reads, and running a piece of code in a child process.
#pragma once

#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace qvtest
{

// A fresh directory under TMPDIR, removed with everything in it.
class TempDir
{
  public:
    TempDir()
    {
        const char *base = getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/qvtest.XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr)
            abort();
        path_ = buf.data();
    }
    ~TempDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline std::vector<std::string> read_lines(const std::string &path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

inline bool file_exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Runs fn in a forked child; the child exits with fn's result. Returns the
// raw wait status.
inline int run_in_child(const std::function<int()> &fn)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(fn());
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

// Under a sanitizer the runtime reserves terabytes of address space and
// serves the heap itself, so the heap cannot be run out by capping the
// address space: tests that need that skip it.
#ifdef QV_SANITIZED
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

// A wait status as a shell shows it: the exit status, or 128 + the signal.
inline int exit_code(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline int in_child(const std::function<int()> &fn)
{
    return exit_code(run_in_child(fn));
}

// What a fatal check prints: `where` is a pattern ("file.cpp:function"),
// `text` the checked expression as written.
inline std::string fatal_re(const std::string &where, const char *text)
{
    std::string re = where + ": assertion \"";
    for (const char *t = text; *t; t++)
        re += std::string(strchr("^$.|?*+()[]{}\\", *t) ? "\\" : "") + *t;
    return re + "\" failed";
}

// Caps the address space a little above what the process maps now, so that
// the heap really runs out. Only for a child process.
inline void limit_address_space()
{
    unsigned long pages = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr || fscanf(f, "%lu", &pages) != 1)
        abort();
    fclose(f);
    rlim_t cap = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (32u << 20);
    struct rlimit rl = {cap, cap};
    if (setrlimit(RLIMIT_AS, &rl) != 0)
        abort();
}

// Takes every byte the heap will still give, under a capped address space:
// large pieces first, then every small size, which drains the free lists and
// per-thread caches too. The pieces are chained so that the compiler cannot
// drop the calls; nothing is freed. Only for a child process.
inline void exhaust_heap()
{
    struct rlimit rl;
    if (getrlimit(RLIMIT_AS, &rl) == 0 && rl.rlim_cur == RLIM_INFINITY)
        limit_address_space();
    static void *hoard_head;
    auto hoard = [](size_t size) {
        while (void *p = malloc(size)) {
            *static_cast<void **>(p) = hoard_head;
            hoard_head = p;
        }
    };
    for (size_t size : {size_t{1} << 20, size_t{65536}, size_t{4096}})
        hoard(size);
    for (size_t size = 1024; size >= sizeof(void *); size -= sizeof(void *))
        hoard(size);
}

} // namespace qvtest

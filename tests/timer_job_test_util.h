// Shared by the timer and job tests: the subsystems brought up on a fresh
// event base once per program, a giant-lock function that records how it
// is called, and reading the messages back from a trace file.
#pragma once

#include <gtest/gtest.h>

#include <event2/event.h>
#include <string.h>

#include <string>
#include <vector>

#include "qv_daemon.h"
#include "qv_memory.h"
#include "qv_test_util.h"
#include "qv_trace.h"

namespace qvtest
{

class TimerJobEnv : public ::testing::Environment
{
  public:
    void SetUp() override
    {
        g_event_base = event_base_new();
        qvmodule_memory_init();
        qvmodule_init();
        qvmodule_timer_init();
        qvmodule_job_init();
    }
};

// Records every lock and unlock as "L" and "U", checks that each unlock
// passes back the result of the lock it matches, and knows the depth.
struct LockRecorder {
    std::string calls;
    std::vector<int> held;
    int next = 100;
    bool matched = true;
    bool fail_locks = false; // every lock returns -1

    static LockRecorder *current;
    static int fn(int lock, int res)
    {
        LockRecorder &r = *current;
        if (lock) {
            int got = r.fail_locks ? -1 : r.next++;
            r.calls += "L";
            r.held.push_back(got);
            return got;
        }
        r.calls += "U";
        if (r.held.empty() || r.held.back() != res)
            r.matched = false;
        else
            r.held.pop_back();
        return 0;
    }
    void install()
    {
        current = this;
        qv_giant_lock_func_init(fn);
    }
    // What was recorded since the last take, which starts afresh.
    std::string take()
    {
        std::string s = calls;
        calls.clear();
        return s;
    }
    size_t depth() const { return held.size(); }
};

inline LockRecorder *LockRecorder::current = nullptr;

// A trace file of its own in a temporary directory as trace_global, for
// tests that do not run start-up.
class TraceCapture
{
  public:
    TraceCapture() { trace_global = trace_file_open(dir_.file("trace.log").c_str(), 1000000, 2); }
    ~TraceCapture()
    {
        trace_file_close(trace_global);
        trace_global = nullptr;
    }
    // The messages written so far, without the time, host and program.
    std::vector<std::string> messages() const
    {
        std::vector<std::string> out;
        for (const std::string &line : read_lines(dir_.file("trace.log"))) {
            size_t at = line.find("]  ");
            out.push_back(at == std::string::npos ? line : line.substr(at + 3));
        }
        return out;
    }

  private:
    TempDir dir_;
};

// The message of a fatal check, as a regular expression.
inline std::string assertion_re(const std::string &file, const std::string &text)
{
    std::string re = file + ":.*assertion \"";
    for (char c : text) {
        if (strchr("\\^$.|?*+()[]{}", c))
            re += '\\';
        re += c;
    }
    return re + "\" failed";
}

// The members of a cJSON object with the given name, in order.
inline std::vector<cJSON *> members(cJSON *obj, const char *name)
{
    std::vector<cJSON *> out;
    for (cJSON *c = obj ? obj->child : nullptr; c; c = c->next)
        if (strcmp(c->string, name) == 0)
            out.push_back(c);
    return out;
}

} // namespace qvtest

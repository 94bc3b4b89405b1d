// A second thread arms timers and queues jobs under the giant lock while
// the loop runs on the daemon's own thread.

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "qv_jobs_private.h"
#include "qv_memory.h"
#include "qv_test_daemon.h"

namespace
{

pthread_mutex_t giant;

int recursive_lock(int lock, int)
{
    if (lock)
        pthread_mutex_lock(&giant);
    else
        pthread_mutex_unlock(&giant);
    return 0;
}

constexpr int kObjects = 100000;

// Every object's fate, changed only under the giant lock.
enum Fate : unsigned char { kPending, kDispatched, kDeleted };
struct Object {
    Fate fate = kPending;
    int dispatches = 0;
    int deletions = 0;
    qvmodule_timer *timer = nullptr;
    qvmodule_job *job = nullptr;
};
std::vector<Object> objects(kObjects);
int settled;
qvmodule *owner;
qvmodule_timer *keep_alive;

long id_of(void *data)
{
    return reinterpret_cast<long>(data);
}

void dispatched(long id)
{
    Object &o = objects[size_t(id)];
    o.dispatches++;
    if (o.fate == kPending)
        settled++;
    o.fate = kDispatched;
}

void on_timer(qvmodule_timer *tip, time_t)
{
    dispatched(id_of(qvmodule_timer_data(tip)));
    qvmodule_timer_delete(tip); // freed by the dispatcher when this returns
}

void on_job(qvmodule_job *jp)
{
    dispatched(id_of(qvmodule_job_data(jp)));
}

void nop(qvmodule_timer *, time_t) {}

// Creates the objects, deleting a random third of them again while they
// may be due, then waits until every one is settled and lets the loop end.
void *producer(void *)
{
    std::mt19937 rng(19);
    for (long id = 0; id < kObjects; id++) {
        recursive_lock(1, 0);
        Object &o = objects[size_t(id)];
        void *data = reinterpret_cast<void *>(id);
        if (id % 2)
            o.job = qvmodule_job_create_foreground(owner, "job", on_job, data);
        else
            o.timer =
                qvmodule_timer_ucreate_oneshot(owner, "timer", 0, rng() % 200, 0, on_timer, data);
        Object &victim = objects[size_t(id - rng() % std::min<long>(id + 1, 64))];
        if (rng() % 3 == 0 && victim.fate == kPending) {
            victim.job ? qvmodule_job_delete(victim.job) : qvmodule_timer_delete(victim.timer);
            victim.deletions++;
            victim.fate = kDeleted;
            settled++;
        }
        recursive_lock(0, 0);
    }
    for (;;) {
        recursive_lock(1, 0);
        bool done = settled == kObjects;
        if (done)
            qvmodule_timer_delete(keep_alive); // the loop ends once nothing is left
        recursive_lock(0, 0);
        if (done)
            return nullptr;
        usleep(1000);
    }
}

TEST(Threads, TimersAndJobsFromAnotherThreadSettleExactlyOnce)
{
    qvtest::Daemon d(true);
    int status = qvtest::run_in_child([&] {
        d.start("/usr/sbin/qvd");
        alarm(30); // a loop that is never woken for the new objects ends here
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&giant, &attr);
        qv_giant_lock_func_init(recursive_lock);
        owner = qvmodule_alloc("threads", 0, nullptr);
        qvmodule_create(owner);
        keep_alive = qvmodule_timer_create(owner, "keep alive", 0, 3600, 0, nop, nullptr);
        unsigned timers = qvmodule_timer_block_index->tb_n_alloc;
        unsigned jobs = qvmodule_job_block_index->tb_n_alloc;

        pthread_t thread;
        pthread_create(&thread, nullptr, producer, nullptr);
        qv_daemon_loop();
        pthread_join(thread, nullptr);

        for (long id = 0; id < kObjects && !::testing::Test::HasFailure(); id++) {
            const Object &o = objects[size_t(id)];
            EXPECT_EQ(o.dispatches, o.fate == kDispatched) << "dispatches of object " << id;
            EXPECT_EQ(o.deletions, o.fate == kDeleted) << "deletions of object " << id;
        }
        EXPECT_EQ(qvmodule_timer_block_index->tb_n_alloc, timers - 1) << "timer records left";
        EXPECT_EQ(qvmodule_job_block_index->tb_n_alloc, jobs) << "job records left";
        return int(::testing::Test::HasFailure());
    });
    EXPECT_EQ(qvtest::exit_code(status), 0)
        << "objects settled other than exactly once (see above)";
}

} // namespace

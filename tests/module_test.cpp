// The module registry, its show and trace commands, qvmodule_quit, and the
// "memory" and "module" show output of a freshly started daemon.
//
// The registry is a process global: each test removes the modules it made,
// and compares the registry against what it held before.

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>

#include <random>
#include <string>
#include <vector>

#include "qv_memory_private.h"
#include "qv_module_private.h"
#include "qv_queue.h"
#include "qv_test_util.h"

namespace
{

void ensure_registry()
{
    static bool done = false;
    if (!done) {
        qvmodule_memory_init();
        qvmodule_init();
        done = true;
    }
}

std::vector<std::string> registry_names()
{
    std::vector<std::string> names;
    qv::for_each(&qvmodule_head, [&names](qvmodule *tp) { names.push_back(tp->qvmodule_name); });
    return names;
}

// The links agree in both directions and end at the head.
bool registry_is_sound()
{
    const qvmodule *prev = &qvmodule_head;
    for (const qvmodule *tp = qvmodule_head.qvmodule_forw; tp != &qvmodule_head;
         tp = tp->qvmodule_forw) {
        if (tp == nullptr || tp->qvmodule_back != prev)
            return false;
        prev = tp;
    }
    return qvmodule_head.qvmodule_back == prev;
}

std::vector<std::string> keys_of(const cJSON *obj)
{
    std::vector<std::string> keys;
    for (const cJSON *c = obj ? obj->child : nullptr; c; c = c->next)
        keys.push_back(c->string ? c->string : "");
    return keys;
}

// The names of the "module" show output, checking its shape on the way.
std::vector<std::string> read_module_show(const cJSON *root)
{
    std::vector<std::string> names;
    EXPECT_EQ(keys_of(root), std::vector<std::string>{"qvmodule List"});
    for (const cJSON *m = root->child ? root->child->child : nullptr; m; m = m->next) {
        EXPECT_STREQ(m->string, "qvmodule");
        EXPECT_EQ(keys_of(m), std::vector<std::string>{"Name"});
        if (m->child && cJSON_IsString(m->child))
            names.push_back(m->child->valuestring);
    }
    return names;
}

std::vector<std::string> module_show()
{
    jrpc_method_ctx ctx{nullptr, cJSON_CreateObject()};
    EXPECT_EQ(qvmodule_module_show(&ctx), JRPC_SUCCESS);
    std::vector<std::string> names = read_module_show(ctx.jrpc_result_root);
    cJSON_Delete(ctx.jrpc_result_root);
    return names;
}

std::vector<std::string> concat(std::vector<std::string> a, const std::vector<std::string> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Each test has its own trace file, with every trace bit clear.
class Module : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ensure_registry();
        before_ = registry_names();
        modules_in_pool_ = qvmodule_block_index->tb_n_alloc;
        trace_global = trace_file_open(trace_path().c_str(), 1000000, 2);
    }
    void TearDown() override
    {
        trace_file_close(trace_global);
        trace_global = nullptr;
        EXPECT_EQ(registry_names(), before_) << "a test left modules behind";
        EXPECT_EQ(qvmodule_block_index->tb_n_alloc, modules_in_pool_);
    }
    std::string trace_path() const { return dir_.file("module.log"); }
    // The messages written so far, without time, host and program.
    std::vector<std::string> messages() const
    {
        std::vector<std::string> out;
        for (const std::string &line : qvtest::read_lines(trace_path())) {
            size_t at = line.find("]  ");
            out.push_back(at == std::string::npos ? line : line.substr(at + 3));
        }
        return out;
    }

    qvtest::TempDir dir_;
    std::vector<std::string> before_;
    unsigned modules_in_pool_ = 0;
};

} // namespace

// The record's layout is part of the API, daemons reach into it: five
// pointers, five 32-bit words, seven pointers, two counters, on 32-bit and
// 64-bit targets alike.
constexpr size_t P = sizeof(void *);
constexpr size_t kMethods = (5 * P + 20 + P - 1) / P * P;
#define QV_AT(field, offset) static_assert(offsetof(qvmodule, field) == (offset), #field)
QV_AT(qvmodule_forw, 0);
QV_AT(qvmodule_back, P);
QV_AT(qvmodule_name, 2 * P);
QV_AT(sock_revent, 3 * P);
QV_AT(sock_wevent, 4 * P);
QV_AT(qvmodule_flags, 5 * P);
QV_AT(qvmodule_proto, 5 * P + 4);
QV_AT(qvmodule_socket, 5 * P + 8);
QV_AT(qvmodule_socket_domain, 5 * P + 12);
QV_AT(qvmodule_priority, 5 * P + 16);
QV_AT(qvmodule_recv_method, kMethods);
QV_AT(qvmodule_accept_method, kMethods + P);
QV_AT(qvmodule_write_method, kMethods + 2 * P);
QV_AT(qvmodule_connect_method, kMethods + 3 * P);
QV_AT(qvmodule_addr, kMethods + 4 * P);
QV_AT(qvmodule_data, kMethods + 5 * P);
QV_AT(qvmodule_mem_cookie, kMethods + 6 * P);
QV_AT(qvmodule_reads, kMethods + 7 * P);
QV_AT(qvmodule_writes, kMethods + 7 * P + 4);
static_assert(P != 4 || sizeof(qvmodule) == 76);
static_assert(QVMODULE_FLAG_ACCEPT == 0x1 && QVMODULE_FLAG_CONNECT == 0x2 &&
              QVMODULE_FLAG_NO_DELETE == 0x4 && QVMODULE_FLAG_READ_DISABLED == 0x20 &&
              QVMODULE_FLAG_WRITE_DISABLED == 0x40);

TEST_F(Module, ModulesAreListedInCreationOrderOnlyOnceCreated)
{
    EXPECT_STREQ(qvmodule_head.qvmodule_name, "qvmodule head");
    EXPECT_STREQ(qvmodule_block_index->tb_name, "qvmodule");
    EXPECT_EQ(qvmodule_block_index->tb_size, sizeof(qvmodule));

    static const char alpha[] = "alpha", beta[] = "beta", gamma[] = "gamma";
    qvmodule *a = qvmodule_alloc(alpha, 7, this);
    qvmodule *b = qvmodule_alloc(beta, 0, nullptr);
    qvmodule *g = qvmodule_alloc(gamma, 0, nullptr);
    EXPECT_EQ(a->qvmodule_name, alpha) << "the name pointer is kept";
    EXPECT_EQ(a->qvmodule_socket, -1);
    EXPECT_EQ(a->qvmodule_socket_domain, 0);
    EXPECT_EQ(a->qvmodule_priority, 0) << "the priority is not kept";
    EXPECT_EQ(a->qvmodule_forw, nullptr);
    EXPECT_EQ(module_show(), before_) << "allocated modules are not listed";

    EXPECT_EQ(qvmodule_create(a), 1);
    EXPECT_EQ(qvmodule_create(b), 1);
    EXPECT_EQ(qvmodule_create(g), 1);
    EXPECT_EQ(module_show(), concat(before_, {"alpha", "beta", "gamma"}));
    EXPECT_EQ(qvmodule_block_index->tb_n_alloc, modules_in_pool_ + 3);

    // A deleted module leaves both shows: the registry and its cookie.
    qvmodule_mem_strdup(b, "charged to beta");
    qvmodule_mem_cookie_t *cookie = b->qvmodule_mem_cookie;
    qvmodule_delete(b);
    EXPECT_EQ(module_show(), concat(before_, {"alpha", "gamma"}));
    EXPECT_TRUE(registry_is_sound());
    for (auto *c = qvmodule_cookies; c; c = c->tmc_next)
        EXPECT_NE(c, cookie);
    qvmodule_delete(a);
    qvmodule_delete(g);
}

TEST_F(Module, AcceptedModulesTakeOnlyTheSocketDomain)
{
    qvmodule *listener = qvmodule_alloc("listener", 0, nullptr);
    listener->qvmodule_socket = 5;
    listener->qvmodule_socket_domain = AF_INET;
    listener->qvmodule_flags = QVMODULE_FLAG_ACCEPT;
    listener->qvmodule_data = this;
    qvmodule *conn = qvmodule_alloc_accept(listener, "conn", 0, nullptr);
    EXPECT_STREQ(conn->qvmodule_name, "conn");
    EXPECT_EQ(conn->qvmodule_socket, -1);
    EXPECT_EQ(conn->qvmodule_socket_domain, AF_INET);
    EXPECT_EQ(conn->qvmodule_flags, 0u);
    EXPECT_EQ(conn->qvmodule_data, nullptr);
    listener->qvmodule_socket = -1;
    qvmodule_free(listener);
    qvmodule_free(conn);
}

TEST_F(Module, FreeingAnUncreatedModuleReturnsItsRecordAndCookie)
{
    unsigned cookies = qvmodule_cookie_block->tb_n_alloc;
    qvmodule *tp = qvmodule_alloc("never_created", 0, nullptr);
    void *kept = qvmodule_mem_malloc(tp, 32);
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies + 1);
    qvmodule_free(tp);
    qvmodule_free(nullptr);
    EXPECT_EQ(qvmodule_cookie_block->tb_n_alloc, cookies);
    // What the module still held is no longer counted anywhere.
    qvmodule_mem_free(nullptr, kept);
}

TEST_F(Module, NoDeleteFlagKeepsTheModuleUntilCleared)
{
    trace_type_enable(trace_global, QV_TRACE_MODULE);
    qvmodule *tp = qvmodule_alloc("keepme", 0, nullptr);
    qvmodule_create(tp);
    char *data = qvmodule_mem_strdup(tp, "held");
    qvmodule_flags_set(tp, QVMODULE_FLAG_NO_DELETE | 0x100);
    qvmodule snapshot = *tp;

    qvmodule_delete(tp);
    EXPECT_EQ(memcmp(&snapshot, tp, sizeof(qvmodule)), 0);
    EXPECT_EQ(module_show(), concat(before_, {"keepme"}));
    EXPECT_EQ(messages().back(), "qvmodule_delete: name:keepme");

    qvmodule_mem_free(tp, data);
    qvmodule_flags_reset(tp, QVMODULE_FLAG_NO_DELETE);
    qvmodule_delete(tp);
    EXPECT_EQ(module_show(), before_);
    std::vector<std::string> msgs = messages();
    EXPECT_EQ(msgs, (std::vector<std::string>{
                        "qvmodule_alloc: name:keepme", "qvmodule_create: name:keepme",
                        "qvmodule_delete: name:keepme", "qvmodule_delete: name:keepme",
                        "qvmodule_free: name:keepme"}));
}

TEST_F(Module, TraceCommandsSwitchOnlyTheModuleBit)
{
    qv_ui_init("modtestapp");
    trace_type_enable(trace_global, QV_TRACE_LIBEVENT);

    qvmodule *quiet = qvmodule_alloc("quiet", 0, nullptr);
    EXPECT_EQ(jrpc_invoke_trace("modtestapp", "module", 1), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, QV_TRACE_LIBEVENT | QV_TRACE_MODULE);

    qvmodule *loud = qvmodule_alloc_accept(quiet, "loud", 0, nullptr);
    qvmodule_create(loud);
    qvmodule_delete(loud);
    EXPECT_EQ(jrpc_invoke_trace("modtestapp", "module", 0), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, QV_TRACE_LIBEVENT);
    qvmodule_free(quiet);

    EXPECT_EQ(messages(),
              (std::vector<std::string>{"qvmodule_alloc: name:loud",
                                        "qvmodule_alloc_accept: name:quiet, new_name:loud",
                                        "qvmodule_create: name:loud", "qvmodule_delete: name:loud",
                                        "qvmodule_free: name:loud"}));
}

TEST_F(Module, NamesAreCutTo40CharactersInOneSharedBuffer)
{
    std::string with_digits;
    for (int i = 0; i < 60; i++)
        with_digits += static_cast<char>('0' + i % 10);
    qvmodule *tp = qvmodule_alloc(with_digits.c_str(), 0, nullptr);
    qvmodule_create(tp);
    EXPECT_EQ(module_show().back(), with_digits.substr(0, 40));

    char *first = qvmodule_name(tp);
    EXPECT_EQ(std::string(first), with_digits.substr(0, 40));
    char *second = qvmodule_name(nullptr);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "(null qvmodule)");
    qvmodule_delete(tp);
}

TEST_F(Module, FlagsAndDataAccessors)
{
    qvmodule *tp = qvmodule_alloc("flags", 0, nullptr);
    EXPECT_FALSE(qvmodule_flags_isset(tp, 0x3));
    qvmodule_flags_set(tp, QVMODULE_FLAG_CONNECT);
    EXPECT_TRUE(qvmodule_flags_isset(tp, 0x3));
    qvmodule_flags_set(tp, QVMODULE_FLAG_ACCEPT | 0x80000000u);
    qvmodule_flags_reset(tp, QVMODULE_FLAG_CONNECT);
    EXPECT_TRUE(qvmodule_flags_isset(tp, 0x3));
    EXPECT_FALSE(qvmodule_flags_isset(tp, QVMODULE_FLAG_CONNECT));
    EXPECT_EQ(qvmodule_flags_get(tp), QVMODULE_FLAG_ACCEPT | 0x80000000u);

    int datum = 0;
    qvmodule_set_data(tp, &datum);
    EXPECT_EQ(qvmodule_get_data(tp), &datum);

    qvmodule snapshot = *tp;
    qvmodule_set_terminate(tp, [](qvmodule *) {});
    EXPECT_EQ(memcmp(&snapshot, tp, sizeof(qvmodule)), 0);
    qvmodule_free(tp);
}

TEST_F(Module, NullNameIsFatal)
{
    EXPECT_DEATH(qvmodule_alloc(nullptr, 0, nullptr),
                 "qv_module.cpp:qvmodule_alloc: assertion \"name\" failed");
}

// Random creations and deletions, some refused by the no-delete flag,
// checked against a plain list after every step.
TEST_F(Module, RandomLifecyclesKeepTheRegistryInCreationOrder)
{
    static const char *names[] = {"m0", "m1", "m2", "m3", "m4", "m5", "m6", "m7"};
    std::mt19937 rng(4242);
    std::vector<qvmodule *> model;
    for (int step = 0; step < 2000; step++) {
        unsigned op = rng() % 3;
        if (op == 0 || model.empty()) {
            qvmodule *tp = qvmodule_alloc(names[rng() % 8], 0, nullptr);
            if (rng() % 2)
                qvmodule_mem_malloc(tp, 1 + rng() % 40);
            qvmodule_create(tp);
            model.push_back(tp);
        } else if (op == 1) {
            size_t k = rng() % model.size();
            qvmodule *tp = model[k];
            bool keep = qvmodule_flags_isset(tp, QVMODULE_FLAG_NO_DELETE);
            qvmodule_delete(tp);
            if (!keep)
                model.erase(model.begin() + k);
        } else {
            qvmodule *tp = model[rng() % model.size()];
            if (qvmodule_flags_isset(tp, QVMODULE_FLAG_NO_DELETE))
                qvmodule_flags_reset(tp, QVMODULE_FLAG_NO_DELETE);
            else
                qvmodule_flags_set(tp, QVMODULE_FLAG_NO_DELETE);
        }
        ASSERT_TRUE(registry_is_sound()) << "step " << step;
        std::vector<std::string> expect = before_;
        for (qvmodule *tp : model)
            expect.push_back(tp->qvmodule_name);
        ASSERT_EQ(registry_names(), expect) << "step " << step;
        ASSERT_EQ(qvmodule_block_index->tb_n_alloc, modules_in_pool_ + model.size());
    }
    EXPECT_EQ(module_show().size(), before_.size() + model.size());
    for (qvmodule *tp : model) {
        qvmodule_flags_reset(tp, QVMODULE_FLAG_NO_DELETE);
        qvmodule_delete(tp);
    }
}

// ---------------------------------------------------------------------------
// qvmodule_quit ends the process, so each case runs in a child.

namespace
{

void report_trace_closed()
{
    fprintf(stderr, "at exit trace_global is %s\n", trace_global ? "open" : "closed");
}

void quit_again()
{
    qvmodule_quit(0);
}

// Runs on abort: hands the errno of the moment out as the exit status.
void exit_with_errno(int)
{
    _exit(errno);
}

} // namespace

TEST_F(Module, QuitWithZeroClosesTheTraceAndExits)
{
    trace_type_enable(trace_global, QV_TRACE_MODULE);
    EXPECT_EXIT(
        {
            atexit(report_trace_closed);
            qvmodule_quit(0);
        },
        ::testing::ExitedWithCode(0), "at exit trace_global is closed");
    EXPECT_EQ(messages().back(), "qvmodule_quit:");
}

TEST_F(Module, QuitWithACodeAbortsWithTheCodeInErrno)
{
    EXPECT_EXIT(
        {
            signal(SIGABRT, exit_with_errno);
            qvmodule_quit(22);
        },
        ::testing::ExitedWithCode(22), "");
    EXPECT_EXIT(qvmodule_quit(7), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(Module, QuitCalledTwiceIsFatal)
{
    EXPECT_DEATH(
        {
            atexit(quit_again);
            qvmodule_quit(0);
        },
        "qv_module.cpp:qvmodule_quit: assertion \"!recursed\" failed");
}

// ---------------------------------------------------------------------------
// A freshly started daemon, in a child process.

namespace
{

void app_module_init()
{
    qvmodule *tp = qvmodule_alloc("appmod", 0, nullptr);
    qvmodule_create(tp);
    qvmodule_mem_strdup(tp, "hello"); // 6 bytes
}

std::string text(const char *s)
{
    return s ? s : "(null)";
}

// Name and numbers of each entry of a list whose members are all `key`.
std::vector<std::pair<std::string, std::vector<double>>> read_list(const cJSON *list,
                                                                   const char *key)
{
    std::vector<std::pair<std::string, std::vector<double>>> out;
    for (const cJSON *e = list ? list->child : nullptr; e; e = e->next) {
        EXPECT_STREQ(e->string, key);
        std::vector<double> numbers;
        for (const cJSON *n = e->child ? e->child->next : nullptr; n; n = n->next)
            numbers.push_back(n->valuedouble);
        out.emplace_back(e->child ? text(e->child->valuestring) : "", numbers);
    }
    return out;
}

void check_fresh_daemon(const std::string &dir)
{
    static std::string log = dir + "/freshd.log", pid = dir + "/freshd.pid";
    static struct app_module mods[] = {{1, "app", app_module_init, nullptr}};
    static qv_daemon_app_ctx_t ctx{};
    ctx.log_file_name = log.data();
    ctx.pid_filename = pid.data();
    ctx.app_modules = {1, mods};
    char arg0[] = "/usr/sbin/freshd";
    char *argv[] = {arg0, nullptr};
    qv_daemon_init(1, argv, &ctx);

    qv_ui_init("freshd");

    cJSON *shown = nullptr;
    ASSERT_EQ(jrpc_invoke_show("freshd", "module", &shown), JRPC_SUCCESS);
    EXPECT_EQ(read_module_show(shown), std::vector<std::string>{"appmod"});
    cJSON_Delete(shown);

    ASSERT_EQ(jrpc_invoke_show("freshd", "memory", &shown), JRPC_SUCCESS);
    EXPECT_EQ(keys_of(shown), (std::vector<std::string>{"Block List", "Mem Cookie List"}));
    auto blocks = read_list(cJSON_GetObjectItem(shown, "Block List"), "Block");
    auto cookies = read_list(cJSON_GetObjectItem(shown, "Mem Cookie List"), "Cookie");
    cJSON_Delete(shown);

    // Start-up's pools, in ascending size, with what start-up took from
    // them; the pool of pool records holds one record per other pool. Pools
    // of other subsystems stand among them and hold nothing yet.
    double others = double(blocks.size() - 1);
    const std::vector<std::pair<std::string, std::vector<double>>> expect = {
        {"qvmodule_block", {double(sizeof(qvmodule_block_t)), others, others, others, 0}},
        {"qvmodule_mem_cookies", {double(sizeof(qvmodule_mem_cookie_t)), 2, 2, 2, 0}},
        {"qvmodule", {double(sizeof(qvmodule)), 1, 1, 1, 0}},
    };
    size_t next = 0;
    double prev_size = 0;
    for (const auto &[name, numbers] : blocks) {
        ASSERT_EQ(numbers.size(), 5u) << name;
        EXPECT_GE(numbers[0], prev_size) << name;
        prev_size = numbers[0];
        if (next < expect.size() && name == expect[next].first)
            EXPECT_EQ(numbers, expect[next++].second) << name;
        else
            EXPECT_EQ(numbers[1], 0) << name;
    }
    EXPECT_EQ(next, expect.size()) << "missing or misplaced start-up pools";
    EXPECT_EQ(cookies, (std::vector<std::pair<std::string, std::vector<double>>>{
                           {"appmod", {6, 6, 1, 1, 1}}, {"--Anonymous--", {0, 0, 0, 0, 0}}}));
}

} // namespace

TEST(ModuleDaemon, FreshDaemonShowsItsPoolsCookiesAndModules)
{
    qvtest::TempDir dir;
    int status = qvtest::run_in_child([&dir] {
        check_fresh_daemon(dir.path());
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child's failures are printed above";
    std::string trace = qvtest::read_file(dir.file("freshd.log"));
    EXPECT_NE(trace.find("Daemon(freshd) starting"), std::string::npos);
}

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
    for (const cJSON *c = obj->child; c; c = c->next)
        keys.push_back(c->string ? c->string : "");
    return keys;
}

// The names of the "module" show output, checking its shape on the way.
std::vector<std::string> read_module_show(const cJSON *root)
{
    std::vector<std::string> names;
    EXPECT_EQ(keys_of(root), std::vector<std::string>{"qvmodule List"});
    if (root->child == nullptr)
        return names;
    for (const cJSON *m = root->child->child; m; m = m->next) {
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

// The field order is part of the API: daemons reach into the record.
static_assert(offsetof(qvmodule, qvmodule_forw) == 0);
static_assert(offsetof(qvmodule, qvmodule_back) == sizeof(void *));
static_assert(offsetof(qvmodule, qvmodule_name) < offsetof(qvmodule, sock_revent));
static_assert(offsetof(qvmodule, sock_revent) < offsetof(qvmodule, sock_wevent));
static_assert(offsetof(qvmodule, sock_wevent) < offsetof(qvmodule, qvmodule_flags));
static_assert(offsetof(qvmodule, qvmodule_flags) < offsetof(qvmodule, qvmodule_proto));
static_assert(offsetof(qvmodule, qvmodule_proto) < offsetof(qvmodule, qvmodule_socket));
static_assert(offsetof(qvmodule, qvmodule_socket) < offsetof(qvmodule, qvmodule_socket_domain));
static_assert(offsetof(qvmodule, qvmodule_socket_domain) < offsetof(qvmodule, qvmodule_priority));
static_assert(offsetof(qvmodule, qvmodule_priority) < offsetof(qvmodule, qvmodule_recv_method));
static_assert(offsetof(qvmodule, qvmodule_recv_method) <
              offsetof(qvmodule, qvmodule_accept_method));
static_assert(offsetof(qvmodule, qvmodule_accept_method) <
              offsetof(qvmodule, qvmodule_write_method));
static_assert(offsetof(qvmodule, qvmodule_write_method) <
              offsetof(qvmodule, qvmodule_connect_method));
static_assert(offsetof(qvmodule, qvmodule_connect_method) < offsetof(qvmodule, qvmodule_addr));
static_assert(offsetof(qvmodule, qvmodule_addr) < offsetof(qvmodule, qvmodule_data));
static_assert(offsetof(qvmodule, qvmodule_data) < offsetof(qvmodule, qvmodule_mem_cookie));
static_assert(offsetof(qvmodule, qvmodule_mem_cookie) < offsetof(qvmodule, qvmodule_reads));
static_assert(offsetof(qvmodule, qvmodule_reads) < offsetof(qvmodule, qvmodule_writes));
static_assert(QVMODULE_FLAG_ACCEPT == 0x1 && QVMODULE_FLAG_CONNECT == 0x2 &&
              QVMODULE_FLAG_NO_DELETE == 0x4 && QVMODULE_FLAG_READ_DISABLED == 0x20 &&
              QVMODULE_FLAG_WRITE_DISABLED == 0x40);

TEST_F(Module, HeadIsAnEmptyNamedListAndThePoolIsSizedForARecord)
{
    EXPECT_STREQ(qvmodule_head.qvmodule_name, "qvmodule head");
    EXPECT_STREQ(qvmodule_block_index->tb_name, "qvmodule");
    EXPECT_EQ(qvmodule_block_index->tb_size, sizeof(qvmodule));
    EXPECT_TRUE(registry_is_sound());
}

TEST_F(Module, ModulesAreListedInCreationOrderOnlyOnceCreated)
{
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
    trace_type_enable(trace_global, QV_TRACE_TIMER);

    qvmodule *quiet = qvmodule_alloc("quiet", 0, nullptr);
    EXPECT_EQ(jrpc_invoke_trace("modtestapp", "module", 1), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, QV_TRACE_TIMER | QV_TRACE_MODULE);

    qvmodule *loud = qvmodule_alloc_accept(quiet, "loud", 0, nullptr);
    qvmodule_create(loud);
    qvmodule_delete(loud);
    EXPECT_EQ(jrpc_invoke_trace("modtestapp", "module", 0), JRPC_SUCCESS);
    EXPECT_EQ(trace_global->trace_mask, QV_TRACE_TIMER);
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

int fail(const char *what)
{
    fprintf(stderr, "fresh daemon: %s\n", what);
    return 1;
}

const char kAppModuleName[] = "appmod";

void app_module_init()
{
    qvmodule *tp = qvmodule_alloc(kAppModuleName, 0, nullptr);
    qvmodule_create(tp);
    qvmodule_mem_strdup(tp, "hello"); // 6 bytes
}

struct ShownEntry {
    std::string name;
    std::vector<double> numbers;
};

std::vector<ShownEntry> read_list(const cJSON *list, const char *key)
{
    std::vector<ShownEntry> out;
    for (const cJSON *e = list ? list->child : nullptr; e; e = e->next) {
        if (strcmp(e->string, key) != 0 || e->child == nullptr || !cJSON_IsString(e->child))
            return {};
        ShownEntry s{e->child->valuestring, {}};
        for (const cJSON *n = e->child->next; n; n = n->next)
            s.numbers.push_back(n->valuedouble);
        out.push_back(s);
    }
    return out;
}

int check_fresh_daemon(const std::string &dir)
{
    static std::string log = dir + "/freshd.log", pid = dir + "/freshd.pid";
    static struct app_module mods[] = {{1, "app", app_module_init, nullptr}};
    static qv_daemon_app_ctx_t ctx{};
    ctx.log_file_name = log.data();
    ctx.pid_filename = pid.data();
    ctx.app_modules.count = 1;
    ctx.app_modules.primary = mods;
    char arg0[] = "/usr/sbin/freshd";
    char *argv[] = {arg0, nullptr};
    qv_daemon_init(1, argv, &ctx);

    size_t first = jrpc_registry_count();
    qv_ui_init("freshd");
    struct Row {
        jrpc_reg_kind_t kind;
        const char *name, *help, *keyword;
        int on;
        jrpc_method_handler_t handler;
    };
    const Row rows[] = {
        {JRPC_REG_SHOW, "memory_usage", "daemon memory usage", "memory", 0, qvmodule_memory_show},
        {JRPC_REG_SHOW, "module_usage", "modules", "module", 0, qvmodule_module_show},
        {JRPC_REG_TRACE, nullptr, nullptr, "module", 1, qvmodule_module_trace_on},
        {JRPC_REG_TRACE, nullptr, nullptr, "module", 0, qvmodule_module_trace_off},
        {JRPC_REG_SHOW, "libevent", "libevent", "libevent", 0, qv_libevent_show},
    };
    auto same = [](const char *a, const char *b) {
        return a == b || (a && b && strcmp(a, b) == 0);
    };
    for (size_t i = 0; i < 5; i++) {
        const jrpc_registration_t *r = jrpc_registry_get(first + i);
        const Row &w = rows[i];
        if (r == nullptr || r->kind != w.kind || !same(r->app, "freshd") ||
            !same(r->name, w.name) || !same(r->help, w.help) || !same(r->keyword, w.keyword) ||
            (w.kind == JRPC_REG_TRACE && r->on != w.on) || r->handler != w.handler)
            return fail("registration table");
    }

    cJSON *mods_shown = nullptr;
    if (jrpc_invoke_show("freshd", "module", &mods_shown) != JRPC_SUCCESS)
        return fail("module show");
    std::vector<std::string> names = read_module_show(mods_shown);
    cJSON_Delete(mods_shown);
    if (names != std::vector<std::string>{"appmod"})
        return fail("module list");

    cJSON *mem = nullptr;
    if (jrpc_invoke_show("freshd", "memory", &mem) != JRPC_SUCCESS)
        return fail("memory show");
    if (keys_of(mem) != std::vector<std::string>{"Block List", "Mem Cookie List"})
        return fail("memory show members");
    std::vector<ShownEntry> blocks = read_list(cJSON_GetObjectItem(mem, "Block List"), "Block");
    std::vector<ShownEntry> cookies =
        read_list(cJSON_GetObjectItem(mem, "Mem Cookie List"), "Cookie");
    cJSON_Delete(mem);

    // The pools of start-up, in ascending size, with what start-up took
    // from them; pools of other subsystems hold nothing yet.
    std::vector<ShownEntry> expect_pools = {
        {"qvmodule_block", {double(sizeof(qvmodule_block_t)), 0, 0, 0, 0}},
        {"qvmodule_mem_cookies", {double(sizeof(qvmodule_mem_cookie_t)), 2, 2, 2, 0}},
        {"qvmodule", {double(sizeof(qvmodule)), 1, 1, 1, 0}},
    };
    size_t next = 0, pools = blocks.size();
    double prev_size = 0;
    for (ShownEntry &b : blocks) {
        if (b.numbers.size() != 5 || b.numbers[0] < prev_size)
            return fail("pool entry or order");
        prev_size = b.numbers[0];
        if (next < expect_pools.size() && b.name == expect_pools[next].name) {
            if (next == 0) // the pool of pool records holds one per other pool
                expect_pools[0].numbers = {double(sizeof(qvmodule_block_t)), double(pools - 1),
                                           double(pools - 1), double(pools - 1), 0};
            if (b.numbers != expect_pools[next].numbers)
                return fail(("pool counters of " + b.name).c_str());
            next++;
        } else if (b.numbers[1] != 0) {
            return fail(("unexpected use of pool " + b.name).c_str());
        }
    }
    if (next != expect_pools.size())
        return fail("missing pools");

    if (cookies.size() != 2 || cookies[0].name != "appmod" ||
        cookies[0].numbers != std::vector<double>{6, 6, 1, 1, 1} ||
        cookies[1].name != "--Anonymous--" || cookies[1].numbers != std::vector<double>(5, 0))
        return fail("cookie list");
    return 0;
}

} // namespace

TEST(ModuleDaemon, FreshDaemonShowsItsPoolsCookiesAndModules)
{
    qvtest::TempDir dir;
    int status = qvtest::run_in_child([&dir] { return check_fresh_daemon(dir.path()); });
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::string trace = qvtest::read_file(dir.file("freshd.log"));
    EXPECT_NE(trace.find("Daemon(freshd) starting"), std::string::npos);
}

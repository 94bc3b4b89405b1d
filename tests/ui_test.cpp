// Management commands: the registrations qv_ui_init makes, the management
// stand-in's invocation of them, and the trace switches.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qv_cjson.h"
#include "qv_daemon.h"
#include "qv_memory.h"
#include "qv_test_util.h"

namespace
{

struct Row {
    jrpc_reg_kind_t kind;
    const char *name, *help, *keyword;
    int on;
    jrpc_method_handler_t handler;
};

// The library's commands, in the order an operator's tools list them.
const std::vector<Row> kTable = {
    {JRPC_REG_SHOW, "memory_usage", "daemon memory usage", "memory", 0, qvmodule_memory_show},
    {JRPC_REG_SHOW, "module_usage", "modules", "module", 0, qvmodule_module_show},
    {JRPC_REG_TRACE, nullptr, nullptr, "module", 1, qvmodule_module_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "module", 0, qvmodule_module_trace_off},
    {JRPC_REG_SHOW, "libevent", "libevent", "libevent", 0, qv_libevent_show},
    {JRPC_REG_TRACE, nullptr, nullptr, "libevent", 1, qv_libevent_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "libevent", 0, qv_libevent_trace_off},
    {JRPC_REG_SHOW, "job", "job information", "job", 0, qvmodule_job_show},
    {JRPC_REG_TRACE, nullptr, nullptr, "job", 1, qvmodule_job_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "job", 0, qvmodule_job_trace_off},
    {JRPC_REG_SHOW, "timer", "timer information", "timer", 0, qvmodule_timer_show},
    {JRPC_REG_TRACE, nullptr, nullptr, "timer", 1, qvmodule_timer_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "timer", 0, qvmodule_timer_trace_off},
    {JRPC_REG_TRACE, nullptr, nullptr, "socket", 1, qvmodule_socket_trace_on},
    {JRPC_REG_TRACE, nullptr, nullptr, "socket", 0, qvmodule_socket_trace_off},
};

class UiTest : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        static qvtest::TempDir dir;
        trace_global = trace_file_open(dir.file("ui.log").c_str(), 100000, 2);
        base = jrpc_registry_count();
        qv_ui_init("mydaemon");
    }
    static size_t base;
};
size_t UiTest::base;

std::string str(const char *s)
{
    return s ? s : "(null)";
}

TEST_F(UiTest, RegistersTheTableInOrder)
{
    ASSERT_EQ(jrpc_registry_count() - base, kTable.size());
    for (size_t i = 0; i < kTable.size(); i++) {
        const jrpc_registration_t *r = jrpc_registry_get(base + i);
        const Row &w = kTable[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(r->kind, w.kind);
        EXPECT_EQ(str(r->app), "mydaemon");
        EXPECT_EQ(str(r->name), str(w.name));
        EXPECT_EQ(str(r->help), str(w.help));
        EXPECT_EQ(str(r->keyword), str(w.keyword));
        if (w.kind == JRPC_REG_TRACE) {
            EXPECT_EQ(r->on, w.on);
        }
        EXPECT_EQ(r->handler, w.handler);
    }
    EXPECT_EQ(jrpc_registry_get(jrpc_registry_count()), nullptr);
}

TEST_F(UiTest, LibeventShowLeavesTheResultUntouched)
{
    cJSON *result = nullptr;
    ASSERT_EQ(jrpc_invoke_show("mydaemon", "libevent", &result), JRPC_SUCCESS);
    ASSERT_NE(result, nullptr);
    EXPECT_TRUE(cJSON_IsObject(result));
    EXPECT_EQ(result->child, nullptr);
    cJSON_Delete(result);
}

TEST_F(UiTest, UnknownCommandsFail)
{
    cJSON *result = reinterpret_cast<cJSON *>(1);
    EXPECT_EQ(jrpc_invoke_show("mydaemon", "nosuch", &result), JRPC_FAIL);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(jrpc_invoke_show("otherapp", "libevent", &result), JRPC_FAIL);
    EXPECT_EQ(jrpc_invoke_trace("mydaemon", "nosuch", 1), JRPC_FAIL);
}

TEST_F(UiTest, TraceSwitchesChangeOnlyTheirBit)
{
    const std::pair<const char *, uint32_t> switches[] = {{"module", QV_TRACE_MODULE},
                                                          {"libevent", QV_TRACE_LIBEVENT},
                                                          {"job", QV_TRACE_JOB},
                                                          {"timer", QV_TRACE_TIMER}};
    for (auto [keyword, bit] : switches) {
        for (uint32_t others : {0x8001u, ~bit}) { // every other bit clear, then set
            SCOPED_TRACE(std::string(keyword) + " among " + std::to_string(others));
            trace_global->trace_mask = others;
            EXPECT_EQ(jrpc_invoke_trace("mydaemon", keyword, 1), JRPC_SUCCESS);
            EXPECT_EQ(trace_global->trace_mask, others | bit);
            EXPECT_EQ(jrpc_invoke_trace("mydaemon", keyword, 0), JRPC_SUCCESS);
            EXPECT_EQ(trace_global->trace_mask, others);
        }
    }
}

TEST(CJsonFormat, AddsAFormattedStringMemberBesideOthersOfTheSameName)
{
    cJSON *obj = cJSON_CreateObject();
    ASSERT_NE(cJSON_AddStringToObject_fmt(obj, "Name", "%s-%03d", "timer", 7), nullptr);
    std::string long_text(5000, 'z');
    ASSERT_NE(cJSON_AddStringToObject_fmt(obj, "Name", "%s", long_text.c_str()), nullptr);
    cJSON *first = obj->child;
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->string, "Name");
    EXPECT_STREQ(first->valuestring, "timer-007");
    ASSERT_NE(first->next, nullptr);
    EXPECT_EQ(std::string(first->next->valuestring), long_text);
    cJSON_Delete(obj);
}

} // namespace

// The show shell end to end: a daemon in a child process serving its show
// port on loopback, in a network namespace of the test's own where the
// machine allows one (otherwise CTest holds a lock on the port), with its
// output files in a temporary directory.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "qv_memory.h"
#include "qv_show_private.h"
#include "qv_netns.h"
#include "qv_test_util.h"

namespace
{

constexpr qvsh_server_id_t kServer = QVSH_SERVER_ID_ORBE;
constexpr int kPort = QVSH_SERVER_BASE_PORT + kServer;
constexpr auto kDeadline = std::chrono::seconds(10);

int connect_port(int port, int rcvbuf = 0)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (rcvbuf)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)), 0) << strerror(errno);
    return fd;
}

void send_text(int fd, const std::string &text)
{
    EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
}

// Everything until the peer ends the stream (end or reset), or the deadline.
std::string read_to_end(int fd, bool *ended = nullptr)
{
    std::string out;
    auto until = std::chrono::steady_clock::now() + kDeadline;
    for (;;) {
        int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(
                           until - std::chrono::steady_clock::now())
                           .count());
        struct pollfd p = {fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) != 1)
            break;
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) {
            if (ended)
                *ended = true;
            break;
        }
        out.append(buf, size_t(n));
    }
    return out;
}

std::string request(const std::string &text)
{
    int fd = connect_port(kPort);
    send_text(fd, text);
    std::string reply = read_to_end(fd);
    close(fd);
    return reply;
}

struct Json {
    cJSON *root;
    explicit Json(const std::string &text) : root(cJSON_Parse(text.c_str())) {}
    ~Json() { cJSON_Delete(root); }
    cJSON *response() const { return cJSON_GetObjectItemCaseSensitive(root, "Response"); }
    std::string request() const
    {
        cJSON *r = cJSON_GetObjectItemCaseSensitive(root, "Request");
        return cJSON_IsString(r) ? r->valuestring : "(none)";
    }
    // The response's members as name=value, in order.
    std::string members() const
    {
        std::string s;
        for (cJSON *m = response() ? response()->child : nullptr; m; m = m->next)
            s += std::string(s.empty() ? "" : " ") + m->string + "=" +
                 (cJSON_IsString(m) ? m->valuestring : cJSON_GetObjectItem(m, "Name")->valuestring);
        return s;
    }
};

/* ---- the daemon's commands ---- */

// Echoes the arguments it was given, so the reply shows every slot.
void show_foo(cmd_ctx_handle ctx)
{
    cJSON *out = qvsh_cmd_get_json(ctx);
    cJSON_AddItemToObject(out, "Handler", cJSON_CreateString("foo"));
    qvsh_cmd_arg_t *args = qvsh_cmd_get_args_list(ctx);
    for (int i = 0; i < QVSH_ARG_ID_MAX; i++)
        if (args[i].arg_present)
            cJSON_AddItemToObject(out, arg_names[i], cJSON_CreateString(args[i].arg_value));
}

void show_text(cmd_ctx_handle ctx)
{
    qvsh_cmd_set_output_fmt(ctx, QV_SHOW_OUT_FMT_APP);
    fputs("plain text, no wrapper\n", qvsh_cmd_get_file(ctx));
}

// More than loopback's buffers hold, for a client that never reads.
void show_big(cmd_ctx_handle ctx)
{
    qvsh_cmd_set_output_fmt(ctx, QV_SHOW_OUT_FMT_APP);
    std::string line(1023, 'b');
    for (int i = 0; i < 16 * 1024; i++)
        fprintf(qvsh_cmd_get_file(ctx), "%s\n", line.c_str());
}

// Leaves no descriptor to be had until the listener has paused twice.
struct rlimit saved_nofile;
void show_hog(cmd_ctx_handle)
{
    getrlimit(RLIMIT_NOFILE, &saved_nofile);
    struct rlimit none = {0, saved_nofile.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    static struct timeval often = {0, 20000};
    static struct event *check = event_new(
        g_event_base, -1, EV_PERSIST,
        [](evutil_socket_t, short, void *) {
            if (qv::show_accept_pauses >= 2)
                setrlimit(RLIMIT_NOFILE, &saved_nofile), event_del(check);
        },
        nullptr);
    event_add(check, &often);
}

void show_pauses(cmd_ctx_handle ctx)
{
    cJSON_AddItemToObject(qvsh_cmd_get_json(ctx), "Pauses",
                          cJSON_CreateString(std::to_string(qv::show_accept_pauses).c_str()));
}

void register_all()
{
    qvsh_register_cmd("show foo", show_foo);
    qvsh_register_cmd("show text", show_text);
    qvsh_register_cmd("show big", show_big);
    qvsh_register_cmd("show hog", show_hog);
    qvsh_register_cmd("show pauses", show_pauses);
}

// The daemon "showd" in a child process, its show port open once the
// constructor returns; killed with the fixture.
class ShowTest : public ::testing::Test
{
  protected:
    qvtest::TempDir dir;
    std::string out_dir = dir.path() + "/out/";
    pid_t pid = -1;

    void SetUp() override
    {
        qvtest::private_network();
        signal(SIGPIPE, SIG_IGN);
        mkdir(out_dir.c_str(), 01777);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid = fork();
        if (pid == 0) {
            close(ready[0]);
            static std::string log = dir.file("showd.log"), out = out_dir;
            static qv_daemon_app_ctx_t ctx{};
            static struct app_module mod = {1, "showd", register_all, nullptr};
            ctx.log_file_name = log.data();
            ctx.app_modules = {1, &mod};
            qv::show_out_dir = out.c_str();
            qv::show_idle_timeout = {2, 0};
            qv::show_send_timeout = {1, 0};
            char arg0[] = "/usr/sbin/showd", *argv[] = {arg0, nullptr};
            qv_daemon_init(1, argv, &ctx);
            // A second initialisation changes nothing ("show all" is listed once).
            block_t pool = qvsh_cmd_block;
            qvmodule *shell = sh_qvmodule;
            qvsh_init();
            char ok = pool == qvsh_cmd_block && shell == sh_qvmodule &&
                              qvsh_app_init(&qvsh_server_list[kServer]) == 0 &&
                              qvsh_app_init(&qvsh_server_list[kServer]) == -1
                          ? 'y'
                          : 'n';
            (void)!write(ready[1], &ok, 1);
            qv_daemon_loop();
            _exit(3);
        }
        close(ready[1]);
        char ok = 0;
        struct pollfd p = {ready[0], POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 10000), 1);
        ASSERT_EQ(read(ready[0], &ok, 1), 1);
        close(ready[0]);
        ASSERT_EQ(ok, 'y') << "the server did not open, or opened twice";
    }
    void TearDown() override
    {
        if (pid > 0) {
            int status = 0;
            EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0) << "the daemon ended";
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
    }
    std::vector<std::string> out_files()
    {
        std::vector<std::string> names;
        for (auto &e : std::filesystem::directory_iterator(out_dir))
            names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(ShowTest, ShowAllIsPrettyJsonAndItsFileStaysBehind)
{
    std::string reply = request("show all,EOC");
    EXPECT_EQ(reply, "{\n\t\"Request\":\t\"show all\",\n\t\"Response\":\t{\n"
                     "\t\t\"Command\":\t{\n\t\t\t\"Name\":\t\"show all\"\n\t\t},\n"
                     "\t\t\"Command\":\t{\n\t\t\t\"Name\":\t\"show big\"\n\t\t},\n"
                     "\t\t\"Command\":\t{\n\t\t\t\"Name\":\t\"show foo\"\n\t\t},\n"
                     "\t\t\"Command\":\t{\n\t\t\t\"Name\":\t\"show hog\"\n\t\t},\n"
                     "\t\t\"Command\":\t{\n\t\t\t\"Name\":\t\"show pauses\"\n\t\t},\n"
                     "\t\t\"Command\":\t{\n\t\t\t\"Name\":\t\"show text\"\n\t\t}\n\t}\n}");
    auto files = out_files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(std::regex_match(files[0], std::regex(R"(showd\.showall\.20[0-9]{12})")))
        << files[0];
    EXPECT_EQ(qvtest::read_file(out_dir + files[0]), reply);

    // A text handler's output is the reply, with no wrapper.
    EXPECT_EQ(request("show text,EOC"), "plain text, no wrapper\n");
}

TEST_F(ShowTest, RequestTable)
{
    const std::string invalid = "Error=command argument invalid";
    const struct {
        const char *text, *request, *members;
    } rows[] = {
        {" show  all ,EOC", " show  all ",
         "Command=show all Command=show big Command=show foo Command=show hog "
         "Command=show pauses Command=show text"},
        {"show foo,interface=eth0,EOC", "show foo", "Handler=foo interface=eth0"},
        {"show foo, interface = eth0 ,EOC", "show foo", "Handler=foo interface=eth0"},
        {"show foo,interface=,EOC", "show foo", invalid.c_str()},
        {"show foo,interface,EOC", "show foo", invalid.c_str()},
        {"show foo,a=b=c,EOC", "show foo", invalid.c_str()},
        {"show foo,colour=red,EOC", "show foo", invalid.c_str()},
        {"show foo,Interface=x,EOC", "show foo", invalid.c_str()},
        {"show foo,interface=   ,EOC", "show foo", "Handler=foo interface="},
        {"show foo,EOC,more", "show foo", "Handler=foo"},
        {"SHOW ALL,EOC", "SHOW ALL", "Error=command not found"},
        {"show nosuch,colour,EOC", "show nosuch", "Error=command not found"},
        // The end marker must be a field of its own.
        {"show foo,EOC\n", "show foo", invalid.c_str()},
        {"show foo,EOC,\n", "show foo", "Handler=foo"},
        {"show foo,interface=EOC", "show foo", invalid.c_str()},
        {",,show foo,,level=1,,level= 2,EOC", "show foo", "Handler=foo level=2"},
        {"show foo,interface=a,level=b,device=c,vdcf=d,vm=e,client=f,devtype=g,devsn=h,EOC",
         "show foo",
         "Handler=foo interface=a level=b device=c vdcf=d vm=e client=f devtype=g devsn=h"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        Json reply(request(row.text));
        EXPECT_EQ(reply.request(), row.request);
        EXPECT_EQ(reply.members(), row.members);
    }
    // Commands that cannot be file names are refused without any file.
    std::string long_cmd(300, 'x');
    auto before = out_files();
    for (std::string text :
         {std::string("show/../../x,EOC"), std::string("show\x01 x,EOC"), long_cmd + ",EOC"}) {
        Json reply(request(text));
        EXPECT_EQ(reply.members(), "Error=command not found") << text;
    }
    EXPECT_EQ(out_files(), before);
}

TEST_F(ShowTest, PiecesAndClientsAtOnce)
{
    int silent = connect_port(kPort);
    int a = connect_port(kPort);
    send_text(a, "show foo,inter");
    int b = connect_port(kPort);
    send_text(b, "show foo,level=1,");
    // Neither half-sent request holds up a whole one, nor does the silent client.
    EXPECT_EQ(Json(request("show foo,device=d,EOC")).members(), "Handler=foo device=d");
    struct pollfd p = {a, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 0), 0) << "answered before its end marker";
    send_text(b, "EOC");
    send_text(a, "face=eth1,E");
    send_text(a, "OC");
    EXPECT_EQ(Json(read_to_end(a)).members(), "Handler=foo interface=eth1");
    EXPECT_EQ(Json(read_to_end(b)).members(), "Handler=foo level=1");
    // The silent one is released after the idle time.
    bool ended = false;
    EXPECT_EQ(read_to_end(silent, &ended), "");
    EXPECT_TRUE(ended);
    for (int fd : {a, b, silent})
        close(fd);
}

TEST_F(ShowTest, AbusiveClientsLoseOnlyTheirOwnRequest)
{
    // 2,000 bytes without an end marker: dropped once the buffer is full.
    int flood = connect_port(kPort);
    std::string junk(2000, 'x');
    (void)!send(flood, junk.data(), junk.size(), MSG_NOSIGNAL);
    bool ended = false;
    EXPECT_EQ(read_to_end(flood, &ended), "");
    EXPECT_TRUE(ended);
    close(flood);
    EXPECT_EQ(Json(request("show foo,EOC")).members(), "Handler=foo");

    // Gone half-way, by a close and by a half-close.
    int gone = connect_port(kPort);
    send_text(gone, "show fo");
    close(gone);
    int half = connect_port(kPort);
    send_text(half, "show fo");
    shutdown(half, SHUT_WR);
    EXPECT_EQ(read_to_end(half, &ended), "");
    close(half);
    EXPECT_EQ(Json(request("show foo,EOC")).members(), "Handler=foo");

    // Never reads a reply larger than the buffers: the next client waits
    // for the send time-out only, and the stalled reply is cut.
    int stalled = connect_port(kPort, 4096);
    send_text(stalled, "show big,EOC");
    EXPECT_EQ(Json(request("show foo,EOC")).members(), "Handler=foo");
    std::string cut = read_to_end(stalled);
    EXPECT_LT(cut.size(), size_t(16 * 1024 * 1024));
    close(stalled);

    // Bytes after the end marker do not reset the connection under the reply.
    int chatty = connect_port(kPort);
    send_text(chatty, "show text,EOC" + std::string(3000, ','));
    EXPECT_EQ(read_to_end(chatty), "plain text, no wrapper\n");
    close(chatty);
}

TEST_F(ShowTest, PlantedLinksAreNeverFollowed)
{
    std::string victim = dir.file("victim");
    std::ofstream(victim) << "precious";
    // The next output names of two commands, for every second the request may take.
    time_t now = time(nullptr);
    for (time_t t = now - 1; t < now + 10; t++) {
        char stamp[32];
        struct tm tm;
        strftime(stamp, sizeof(stamp), "%Y%m%d%H%M%S", localtime_r(&t, &tm));
        symlink(victim.c_str(), (out_dir + "showd.showall." + stamp).c_str());
        link(victim.c_str(), (out_dir + "showd.showtext." + stamp).c_str());
    }
    EXPECT_EQ(Json(request("show all,EOC")).members(), "Error=output file unavailable");
    EXPECT_EQ(Json(request("show text,EOC")).members(), "Error=output file unavailable");
    EXPECT_EQ(qvtest::read_file(victim), "precious");
    EXPECT_EQ(Json(request("show foo,EOC")).members(), "Handler=foo");
}

TEST_F(ShowTest, ExhaustedDescriptorsPauseTheListener)
{
    EXPECT_EQ(Json(request("show hog,EOC")).members(), "");
    // Accepted only once the hoarded descriptors are back, without spinning.
    EXPECT_EQ(Json(request("show foo,EOC")).members(), "Handler=foo");
    Json pauses(request("show pauses,EOC"));
    int n = atoi(cJSON_GetObjectItem(pauses.response(), "Pauses")->valuestring);
    EXPECT_GE(n, 2);
    EXPECT_LT(n, 50);
}

TEST_F(ShowTest, QvshClient)
{
    auto run = [](std::vector<std::string> args, std::string *out) {
        int pipefd[2];
        EXPECT_EQ(pipe(pipefd), 0);
        pid_t child = fork();
        if (child == 0) {
            dup2(pipefd[1], 1);
            std::vector<char *> argv = {const_cast<char *>(QVSH_BINARY)};
            for (auto &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(QVSH_BINARY, argv.data());
            _exit(127);
        }
        close(pipefd[1]);
        *out = read_to_end(pipefd[0]);
        close(pipefd[0]);
        int status = 0;
        waitpid(child, &status, 0);
        return qvtest::exit_code(status);
    };
    std::string out;
    EXPECT_EQ(run({"--server", "orbe", "show foo", "interface=eth0", "level=2"}, &out), 0);
    EXPECT_EQ(Json(out).members(), "Handler=foo interface=eth0 level=2");
    EXPECT_EQ(run({"--port", std::to_string(kPort), "--raw", "show text"}, &out), 0);
    EXPECT_EQ(out, "plain text, no wrapper\n");
    EXPECT_EQ(run({"--port", std::to_string(kPort), "--pretty", "show nosuch"}, &out), 3);
    EXPECT_EQ(out, "{\n  \"Request\": \"show nosuch\",\n  \"Response\": {\n"
                   "    \"Error\": \"command not found\"\n  }\n}\n");
    EXPECT_EQ(run({"--port", std::to_string(kPort), "show foo", "colour"}, &out), 1);
    EXPECT_EQ(run({"--list"}, &out), 0);
    EXPECT_NE(out.find("6  orbe     3006"), std::string::npos) << out;
    // Nothing listens: a connection failure. A listener that never answers: a time-out.
    // Both on ports of the kernel's choosing, held by this test.
    auto own_port = [](int fd) {
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)), 0);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        return std::to_string(ntohs(a.sin_port));
    };
    int closed = socket(AF_INET, SOCK_STREAM, 0), mute = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(run({"--port", own_port(closed), "show all"}, &out), 2);
    std::string mute_port = own_port(mute);
    listen(mute, 4);
    EXPECT_EQ(run({"--port", mute_port, "--timeout", "0.3", "show all"}, &out), 4);
    close(mute), close(closed);
}

// The fatal checks, each in a child with a shell of its own.
TEST(ShowFatal, AssertionTexts)
{
    qvtest::TempDir dir;
    static std::string out = dir.path() + "/";
    auto shell = [] {
        qv::show_out_dir = out.c_str();
        qvmodule_memory_init(), qvmodule_init(), qvsh_init(), qvsh_init();
    };
    auto run = [](const char *text, cmd_handler_cb fn) {
        qvsh_register_cmd("show x", fn);
        std::string req = std::string(text) + ",EOC";
        qvsh_handle_cmd(nullptr, req.data());
    };
    const char *where = "qv_show.cpp:qvsh_handle_cmd: assertion ";
    EXPECT_DEATH((shell(), qvsh_register_cmd(" show\tall", show_foo)),
                 "qv_show.cpp:qvsh_register_cmd: assertion "
                 "\"hbt_insert\\(&cmd_root, &new_cmd->cmd_node, cmd_node_cmp\\)\" failed");
    EXPECT_DEATH((shell(), run("show x", [](cmd_ctx_handle c) { fputs("x", c->fp); })),
                 std::string(where) + "\"ftell\\(fp\\) == 0\" failed");
    EXPECT_DEATH((shell(), run("show x", [](cmd_ctx_handle c) { c->out_fmt = 3; })),
                 std::string(where) + "\"new_cmd_ctx->out_fmt == QV_SHOW_OUT_FMT_APP\" failed");
    qvsh_server_t unix_entry = qvsh_server_list[0];
    struct sockaddr un = {AF_UNIX, {}};
    unix_entry.addr = &un;
    struct sockaddr_in got;
    EXPECT_DEATH(qvsh_server_convert_to_network(&unix_entry, reinterpret_cast<sockaddr *>(&got)),
                 "qv_shared.cpp:qvsh_server_convert_to_network: assertion "
                 "\"server->addr->sa_family == 2\" failed");
    // A port in use stops the daemon.
    qvtest::private_network();
    int taken = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {};
    qvsh_server_convert_to_network(&qvsh_server_list[kServer], reinterpret_cast<sockaddr *>(&a));
    EXPECT_EQ(a.sin_port, htons(kPort));
    EXPECT_EQ(a.sin_addr.s_addr, htonl(INADDR_ANY));
    int on = 1;
    setsockopt(taken, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr *>(&a), sizeof(a)), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    EXPECT_DEATH(
        (shell(), g_event_base = event_base_new(), qvsh_app_init(&qvsh_server_list[kServer])),
        "qv_show.cpp:qvsh_app_init: assertion \"0\" failed");
    close(taken);
}

} // namespace

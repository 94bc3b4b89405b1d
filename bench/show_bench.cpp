// Requests per second of "show all" from a client on loopback, one request
// per connection, beside the same number of bare TCP connects and closes
// to the same server in the same run: the anchor is what the connection
// alone costs.
//
// The daemon runs in a child process of its own, in a network namespace
// of the benchmark's own where the machine allows one, so that its port
// collides with nothing; its output files go to a temporary directory.
// Every request of one second rewrites the same output file.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "qv_daemon.h"
#include "qv_show_private.h"
#include "qv_netns.h"

namespace
{

// Not the port the tests use.
constexpr qvsh_server_id_t kServer = QVSH_SERVER_ID_LUMD;
constexpr int kPort = QVSH_SERVER_BASE_PORT + kServer;

pid_t daemon_pid_;
std::string work_dir;

void start_daemon()
{
    // A tmpfs, as /var/tmp often is on the appliance; on ext4 the truncation
    // of the same second's file before each rewrite starts a writeback that
    // costs milliseconds and would be all this measured.
    char tmpl[] = "/dev/shm/qvshbench.XXXXXX", fallback[] = "/tmp/qvshbench.XXXXXX";
    const char *made = mkdtemp(tmpl);
    if (made == nullptr && (made = mkdtemp(fallback)) == nullptr)
        abort();
    work_dir = made;
    int ready[2];
    if (pipe(ready) != 0)
        abort();
    daemon_pid_ = fork();
    if (daemon_pid_ == 0) {
        close(ready[0]);
        static std::string log = work_dir + "/benchd.log", out = work_dir + "/";
        static qv_daemon_app_ctx_t ctx{};
        ctx.log_file_name = log.data();
        qv::show_out_dir = out.c_str();
        char arg0[] = "benchd", *argv[] = {arg0, nullptr};
        qv_daemon_init(1, argv, &ctx);
        char ok = qvsh_app_init(&qvsh_server_list[kServer]) == 0 ? 'y' : 'n';
        (void)!write(ready[1], &ok, 1);
        qv_daemon_loop();
        _exit(1);
    }
    close(ready[1]);
    char ok = 0;
    if (read(ready[0], &ok, 1) != 1 || ok != 'y') {
        fprintf(stderr, "show_bench: the daemon's server did not open on port %d\n", kPort);
        exit(1);
    }
    close(ready[0]);
}

int connect_server()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(kPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0)
        abort();
    return fd;
}

void BM_ShowAllRequest(benchmark::State &state)
{
    static const char req[] = "show all,EOC";
    size_t bytes = 0;
    for (auto _ : state) {
        int fd = connect_server();
        if (send(fd, req, sizeof(req) - 1, MSG_NOSIGNAL) != ssize_t(sizeof(req) - 1))
            abort();
        char buf[4096];
        for (ssize_t n; (n = recv(fd, buf, sizeof(buf), 0)) > 0;)
            bytes += size_t(n);
        close(fd);
    }
    if (bytes / state.iterations() < 20) // the reply must really be there
        state.SkipWithError("short replies");
    state.SetItemsProcessed(state.iterations());
}

// The anchor: the same connection made and closed without a request. The
// client half-closes and waits for the server's close, as it waits for
// the reply above: one connection at a time, so that the listen backlog
// of 1 never drops a connection attempt and charges a retransmission.
void BM_ConnectClose(benchmark::State &state)
{
    for (auto _ : state) {
        int fd = connect_server();
        shutdown(fd, SHUT_WR);
        char c;
        if (recv(fd, &c, 1, 0) != 0)
            abort();
        close(fd);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_ShowAllRequest)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_ConnectClose)->UseRealTime()->MinTime(2.0);

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    if (!qvtest::private_network())
        fprintf(stderr, "show_bench: no private network namespace; using port %d on this host\n",
                kPort);
    start_daemon();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    kill(daemon_pid_, SIGKILL);
    waitpid(daemon_pid_, nullptr, 0);
    std::error_code ec;
    std::filesystem::remove_all(work_dir, ec);
    return 0;
}

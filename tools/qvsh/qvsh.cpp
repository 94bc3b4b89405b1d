// qvsh: sends one show request to a daemon's show server and prints the
// reply.

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <netdb.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include <cjson/cJSON.h>

#include "qv_shared.h"

namespace
{

enum Exit { kOk = 0, kUsage = 1, kConnect = 2, kErrorReply = 3, kTimeout = 4 };

constexpr const char *kHelp =
    "usage: qvsh [--host H] (--server NAME | --port N) [--timeout SECONDS]\n"
    "            [--raw | --pretty] COMMAND [name=value ...]\n"
    "       qvsh --list\n"
    "       qvsh --help\n"
    "\n"
    "Sends COMMAND with its arguments to a daemon's show server, ended by the\n"
    "field EOC, and prints the reply.\n"
    "\n"
    "  --host H           address or name of the daemon's host (127.0.0.1)\n"
    "  --server NAME      the daemon, by its name in the server table (--list)\n"
    "  --port N           the daemon, by its TCP port\n"
    "  --timeout SECONDS  give up after this long, fractions allowed (5)\n"
    "  --raw              print the reply as received\n"
    "  --pretty           print a JSON reply indented\n"
    "                     (default: indented on a terminal, as received otherwise)\n"
    "  --list             print the server table: id, name, port\n"
    "  --help             print this text\n"
    "\n"
    "Argument names: interface level device vdcf vm client devtype devsn.\n"
    "\n"
    "Exit status: 0 reply printed; 1 usage error; 2 connection failure;\n"
    "3 the daemon answered an \"Error\"; 4 time-out.\n";

double now()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Waits for events on fd until the deadline; false on time-out.
bool wait_for(int fd, short events, double deadline)
{
    for (;;) {
        double left = deadline - now();
        if (left <= 0)
            return false;
        struct pollfd p = {fd, events, 0};
        int n = poll(&p, 1, int(left * 1000) + 1);
        if (n > 0)
            return true;
        if (n < 0 && errno != EINTR)
            return true; // the next call reports the error
    }
}

void indent(std::string &out, int depth)
{
    out.append(size_t(depth) * 2, ' ');
}

std::string leaf(const cJSON *item)
{
    char *text = cJSON_PrintUnformatted(item);
    std::string s = text ? text : "null";
    cJSON_free(text);
    return s;
}

std::string quoted(const char *s)
{
    cJSON *item = cJSON_CreateString(s);
    std::string q = leaf(item);
    cJSON_Delete(item);
    return q;
}

// Two-space indentation that keeps repeated member names, in order.
void pretty(const cJSON *item, int depth, std::string &out)
{
    bool object = cJSON_IsObject(item);
    if (!object && !cJSON_IsArray(item)) {
        out += leaf(item);
        return;
    }
    if (item->child == nullptr) {
        out += object ? "{}" : "[]";
        return;
    }
    out += object ? "{\n" : "[\n";
    for (const cJSON *c = item->child; c; c = c->next) {
        indent(out, depth + 1);
        if (object)
            out += quoted(c->string) + ": ";
        pretty(c, depth + 1, out);
        out += c->next ? ",\n" : "\n";
    }
    indent(out, depth);
    out += object ? "}" : "]";
}

int list_servers()
{
    for (qvsh_server_t &s : qvsh_server_list) {
        struct sockaddr_in a;
        qvsh_server_convert_to_network(&s, reinterpret_cast<struct sockaddr *>(&a));
        printf("%u  %-8s %u\n", s.server_id, s.server_name, ntohs(a.sin_port));
    }
    return kOk;
}

int usage(const char *why)
{
    fprintf(stderr, "qvsh: %s\n%s", why, kHelp);
    return kUsage;
}

} // namespace

int main(int argc, char **argv)
{
    const char *host = "127.0.0.1";
    long port = -1;
    double timeout = 5;
    int pretty_mode = isatty(1) ? 1 : 0;
    static const struct option opts[] = {{"host", required_argument, nullptr, 'h'},
                                         {"server", required_argument, nullptr, 's'},
                                         {"port", required_argument, nullptr, 'p'},
                                         {"timeout", required_argument, nullptr, 't'},
                                         {"raw", no_argument, nullptr, 'r'},
                                         {"pretty", no_argument, nullptr, 'P'},
                                         {"list", no_argument, nullptr, 'l'},
                                         {"help", no_argument, nullptr, 'H'},
                                         {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "+", opts, nullptr)) != -1;) {
        char *end = nullptr;
        switch (c) {
        case 'h':
            host = optarg;
            break;
        case 's':
            port = -1;
            for (qvsh_server_t &s : qvsh_server_list)
                if (strcmp(s.server_name, optarg) == 0) {
                    struct sockaddr_in a;
                    qvsh_server_convert_to_network(&s, reinterpret_cast<struct sockaddr *>(&a));
                    port = ntohs(a.sin_port);
                }
            if (port < 0)
                return usage("no such server (see --list)");
            break;
        case 'p':
            port = strtol(optarg, &end, 10);
            if (*optarg == '\0' || *end != '\0' || port <= 0 || port > 65535)
                return usage("the port must be a number from 1 to 65535");
            break;
        case 't':
            timeout = strtod(optarg, &end);
            if (*optarg == '\0' || *end != '\0' || !(timeout > 0) || timeout > 86400)
                return usage("the time-out must be a positive number of seconds");
            break;
        case 'r':
            pretty_mode = 0;
            break;
        case 'P':
            pretty_mode = 1;
            break;
        case 'l':
            return list_servers();
        case 'H':
            fputs(kHelp, stdout);
            return kOk;
        default:
            return usage("unknown option");
        }
    }
    if (port < 0)
        return usage("name the daemon with --server or --port");
    if (optind >= argc)
        return usage("no command");

    // The request: COMMAND,name=value,...,EOC. Commas would split fields.
    std::string req;
    for (int i = optind; i < argc; i++) {
        std::string_view field = argv[i];
        if (field.find(',') != field.npos)
            return usage("a command or argument cannot hold a comma");
        if (i > optind && field.find('=') == field.npos)
            return usage("arguments are name=value");
        req.append(field).append(",");
    }
    req += "EOC";

    double deadline = now() + timeout;
    struct addrinfo hints = {}, *res = nullptr;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    std::string service = std::to_string(port);
    if (int rc = getaddrinfo(host, service.c_str(), &hints, &res); rc != 0) {
        fprintf(stderr, "qvsh: %s: %s\n", host, gai_strerror(rc));
        return kConnect;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int rc = fd < 0 ? -1 : connect(fd, res->ai_addr, res->ai_addrlen);
    freeaddrinfo(res);
    if (rc != 0 && errno == EINPROGRESS) {
        if (!wait_for(fd, POLLOUT, deadline)) {
            fprintf(stderr, "qvsh: %s port %ld: connection timed out\n", host, port);
            return kTimeout;
        }
        int err = 0;
        socklen_t len = sizeof(err);
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
            err = errno;
        rc = err == 0 ? 0 : (errno = err, -1);
    }
    if (rc != 0) {
        fprintf(stderr, "qvsh: %s port %ld: %s\n", host, port, strerror(errno));
        return kConnect;
    }

    for (size_t sent = 0; sent < req.size();) {
        if (!wait_for(fd, POLLOUT, deadline)) {
            fprintf(stderr, "qvsh: timed out sending the request\n");
            return kTimeout;
        }
        ssize_t n = send(fd, req.data() + sent, req.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            fprintf(stderr, "qvsh: send: %s\n", strerror(errno));
            return kConnect;
        }
        sent += n > 0 ? size_t(n) : 0;
    }

    std::string reply;
    for (;;) {
        if (!wait_for(fd, POLLIN, deadline)) {
            fprintf(stderr, "qvsh: timed out waiting for the reply\n");
            return kTimeout;
        }
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n == 0)
            break;
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            fprintf(stderr, "qvsh: receive: %s\n", strerror(errno));
            return kConnect;
        }
        if (n > 0)
            reply.append(buf, size_t(n));
    }
    close(fd);

    cJSON *doc = cJSON_ParseWithLength(reply.data(), reply.size());
    cJSON *response = cJSON_GetObjectItemCaseSensitive(doc, "Response");
    bool error = cJSON_GetObjectItemCaseSensitive(response, "Error") != nullptr;
    if (doc != nullptr && pretty_mode) {
        std::string out;
        pretty(doc, 0, out);
        puts(out.c_str());
    } else {
        fwrite(reply.data(), 1, reply.size(), stdout);
    }
    cJSON_Delete(doc);
    return error ? kErrorReply : kOk;
}

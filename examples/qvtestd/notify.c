/* The notification protocol: the state text is the whole datagram, sent
 * on a fresh socket each time. States are rare (start, stop, a watchdog
 * ping every few seconds), so keeping a socket open would buy nothing and
 * would need care across the fork of -d. */
#include "notify.h"

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/* Fills addr from NOTIFY_SOCKET's value; returns the address length or a
 * negative errno value. */
static int notify_address(const char *name, struct sockaddr_un *addr)
{
    size_t len = strlen(name);

    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    /* A path must be absolute; '@' marks an abstract name, whose first
     * byte on the wire is a NUL and whose length is not NUL-terminated. */
    if (len < 2 || (name[0] != '/' && name[0] != '@'))
        return -EINVAL;
    if (len > sizeof(addr->sun_path) || (name[0] == '/' && len == sizeof(addr->sun_path)))
        return -ENAMETOOLONG;
    memcpy(addr->sun_path, name, len);
    if (name[0] == '@') {
        addr->sun_path[0] = '\0';
        return (int)(offsetof(struct sockaddr_un, sun_path) + len);
    }
    return (int)(offsetof(struct sockaddr_un, sun_path) + len + 1);
}

int notify_send(const char *state)
{
    const char *name = getenv("NOTIFY_SOCKET");
    struct sockaddr_un addr;
    int addr_len, fd, err = 0;

    if (name == NULL || name[0] == '\0')
        return 0;
    addr_len = notify_address(name, &addr);
    if (addr_len < 0)
        return addr_len;
    fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    if (sendto(fd, state, strlen(state), MSG_NOSIGNAL, (struct sockaddr *)&addr,
               (socklen_t)addr_len) < 0)
        err = -errno;
    close(fd);
    return err < 0 ? err : 1;
}

/* A whole decimal number and nothing else, or 0. */
static uint64_t env_number(const char *var)
{
    const char *text = getenv(var);
    char *end;
    unsigned long long value;

    if (text == NULL || text[0] < '0' || text[0] > '9')
        return 0;
    errno = 0;
    value = strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0')
        return 0;
    return value;
}

uint64_t notify_watchdog_usec(void)
{
    uint64_t pid = env_number("WATCHDOG_PID");

    /* The variables pass to every child; only the process they name
     * answers the watchdog. */
    if (getenv("WATCHDOG_PID") != NULL && pid != (uint64_t)getpid())
        return 0;
    return env_number("WATCHDOG_USEC");
}

// Namespaces of a test's own: a loopback network where fixed show ports
// collide with nothing else on the machine.
#pragma once

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace qvtest
{

inline void write_text(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY);
    if (fd >= 0)
        (void)!write(fd, text.data(), text.size()), close(fd);
}

// Brings lo up in the current network namespace.
inline bool loopback_up()
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq ifr = {};
    strcpy(ifr.ifr_name, "lo");
    bool up = ioctl(s, SIOCGIFFLAGS, &ifr) == 0 &&
              (ifr.ifr_flags |= IFF_UP, ioctl(s, SIOCSIFFLAGS, &ifr) == 0);
    close(s);
    return up;
}

// A network namespace with only lo, up; as root the namespace alone, else
// inside a user namespace of our own. Once a process: later calls report
// the first one's result.
inline bool private_network()
{
    static int ok = -1;
    if (ok >= 0)
        return ok;
    uid_t uid = geteuid();
    gid_t gid = getegid();
    if (unshare(CLONE_NEWNET) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            return (ok = 0);
        write_text("/proc/self/setgroups", "deny");
        write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    return (ok = loopback_up());
}

} // namespace qvtest

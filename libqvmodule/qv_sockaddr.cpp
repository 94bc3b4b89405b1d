// Compact socket addresses: a malloc'd record holding a UNIX path or an
// IPv4 port and address, its conversions to and from the kernel's form,
// and its printable form.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>

#include "qv_assert.h"
#include "qv_sockaddr_private.h"

static_assert(sizeof(struct sockaddr_un) == QV_SOCKADDR_UN_LEN &&
              sizeof(struct sockaddr_in) == QV_SOCKADDR_IN_LEN);
static_assert(offsetof(struct sockaddr_in, sin_port) == offsetof(union sockaddr_un_, in.gin_port) &&
              offsetof(struct sockaddr_in, sin_addr) == offsetof(union sockaddr_un_, in.gin_addr));

namespace
{

constexpr size_t kFamilyLen = sizeof(uint16_t);
constexpr size_t kPathMax = sizeof(((struct sockaddr_un *)nullptr)->sun_path);
constexpr size_t kPrintBuf = 128;

char un_print_buf[kPrintBuf];
char in_print_buf[kPrintBuf];

uint32_t sock2unix_un(const qvsockaddr_t *ga, struct sockaddr *addr)
{
    auto *sun = reinterpret_cast<struct sockaddr_un *>(addr);
    memset(sun, 0, sizeof(*sun));
    sun->sun_family = AF_UNIX;
    // A path that fills sun_path keeps no terminator, as the kernel allows.
    memcpy(sun->sun_path, ga->un.gun_path, strnlen(ga->un.gun_path, kPathMax));
    return QV_SOCKADDR_UN_LEN;
}

uint32_t sock2unix_in(const qvsockaddr_t *ga, struct sockaddr *addr)
{
    auto *sin = reinterpret_cast<struct sockaddr_in *>(addr);
    memset(sin, 0, sizeof(*sin));
    sin->sin_family = AF_INET;
    sin->sin_port = ga->in.gin_port;
    sin->sin_addr.s_addr = ga->in.gin_addr;
    return QV_SOCKADDR_IN_LEN;
}

// A length short of the family field is an unnamed address, not a reason
// to count the path's bytes below zero.
qvsockaddr_t *unix2qvsock_un(const struct sockaddr *addr, size_t len)
{
    size_t path_len = len > kFamilyLen ? len - kFamilyLen : 0;
    qvsockaddr_t *ga = sockcreate(AF_UNIX, kFamilyLen + path_len + 1);
    memcpy(ga->un.gun_path, reinterpret_cast<const char *>(addr) + kFamilyLen, path_len);
    return ga;
}

// Only the bytes the kernel reported count; the rest read as zero.
qvsockaddr_t *unix2qvsock_in(const struct sockaddr *addr, size_t len)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(addr);
    len = std::min<size_t>(len, QV_SOCKADDR_IN_LEN);
    in_port port = 0;
    qv_in_addr_t in = 0;
    if (len > offsetof(struct sockaddr_in, sin_port) + 1)
        memcpy(&port, bytes + offsetof(struct sockaddr_in, sin_port), sizeof(port));
    if (len > offsetof(struct sockaddr_in, sin_addr))
        memcpy(&in, bytes + offsetof(struct sockaddr_in, sin_addr),
               std::min<size_t>(len - offsetof(struct sockaddr_in, sin_addr), sizeof(in)));
    return sockcreate_in(port, in);
}

const char *un_print(const qvsockaddr_t *ga)
{
    snprintf(un_print_buf, sizeof(un_print_buf), "UNIX/%s", ga->un.gun_path);
    return un_print_buf;
}

const char *in_print(const qvsockaddr_t *ga)
{
    char dotted[INET_ADDRSTRLEN];
    struct in_addr in = {ga->in.gin_addr};
    inet_ntop(AF_INET, &in, dotted, sizeof(dotted));
    snprintf(in_print_buf, sizeof(in_print_buf), "INET4/%s:%d", dotted, ntohs(ga->in.gin_port));
    return in_print_buf;
}

} // namespace

// Every record spans at least the whole union, so that reading any view's
// fixed fields stays inside its block. Callers use the result unchecked,
// so running out of memory stops the daemon here.
qvsockaddr_t *qv::sockcreate(uint16_t family, size_t len) noexcept
{
    auto *ga = static_cast<qvsockaddr_t *>(calloc(1, std::max(len, sizeof(qvsockaddr_t))));
    QV_ASSERT(ga);
    ga->a.ga_family = family;
    return ga;
}

extern "C" QV_EXPORT qvsockaddr_t *sockcreate_un(const char *name) noexcept
{
    size_t n = strlen(name);
    qvsockaddr_t *ga = sockcreate(AF_UNIX, kFamilyLen + n + 1);
    memcpy(ga->un.gun_path, name, n);
    return ga;
}

extern "C" QV_EXPORT qvsockaddr_t *sockcreate_in(in_port port, qv_in_addr_t addr) noexcept
{
    qvsockaddr_t *ga = sockcreate(AF_INET, sizeof(qvsockaddr_t));
    ga->in.gin_port = port;
    ga->in.gin_addr = addr;
    return ga;
}

extern "C" QV_EXPORT void sockfree(qvsockaddr_t *addr) noexcept
{
    free(addr);
}

extern "C" QV_EXPORT uint32_t qvsockaddr2sockaddr(const qvsockaddr_t *ga,
                                                  struct sockaddr *addr) noexcept
{
    switch (ga->a.ga_family) {
    case AF_UNIX:
        return sock2unix_un(ga, addr);
    case AF_INET:
        return sock2unix_in(ga, addr);
    default:
        QV_ASSERT(0);
    }
}

extern "C" QV_EXPORT qvsockaddr_t *sockaddr2qvsockaddr(struct sockaddr *addr, size_t len) noexcept
{
    switch (addr->sa_family) {
    case AF_UNIX:
        return unix2qvsock_un(addr, len);
    case AF_INET:
        return unix2qvsock_in(addr, len);
    default:
        QV_ASSERT(0);
    }
}

extern "C" QV_EXPORT const char *qvsockaddr_print(qvsockaddr_t *addr) noexcept
{
    switch (addr->a.ga_family) {
    case AF_UNIX:
        return un_print(addr);
    case AF_INET:
        return in_print(addr);
    default:
        QV_ASSERT(0);
    }
}

// Compact socket addresses: kernel forms in and out by length, printing,
// the record sizes, and what stops the daemon.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <string>
#include <type_traits>

#include "qv_sockaddr_private.h"
#include "qv_test_util.h"

namespace
{

// C++ sees the system's struct in_addr and the library's 32-bit address side by side.
static_assert(std::is_same_v<qv_in_addr_t, uint32_t> && sizeof(struct in_addr) == 4);

// A kernel address of the given reported length becomes a record that
// prints as given, spans at least the size a record of it needs, and
// goes back to the kernel form.
TEST(SockAddr, FromTheKernelFormByReportedLength)
{
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET, sin.sin_port = htons(3000);
    inet_pton(AF_INET, "10.1.2.3", &sin.sin_addr);
    struct sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    strcpy(sun.sun_path, "/tmp/x");
    struct sockaddr_in any = {};
    any.sin_family = AF_INET, any.sin_port = htons(3000);
    const struct {
        void *sa;
        size_t len, size;
        const char *text;
    } rows[] = {
        {&sin, 0, 8, "INET4/0.0.0.0:0"},
        {&sin, 3, 8, "INET4/0.0.0.0:0"},
        {&sin, 4, 8, "INET4/0.0.0.0:3000"},
        {&sin, 6, 8, "INET4/10.1.0.0:3000"},
        {&sin, 16, 8, "INET4/10.1.2.3:3000"},
        {&sin, 4096, 8, "INET4/10.1.2.3:3000"},
        {&any, 16, 8, "INET4/0.0.0.0:3000"},
        {&sun, 0, 3, "UNIX/"},
        {&sun, 2, 3, "UNIX/"},
        {&sun, 5, 6, "UNIX//tm"},
        {&sun, 8, 9, "UNIX//tmp/x"},
        {&sun, 9, 10, "UNIX//tmp/x"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        qvsockaddr_t *ga = sockaddr2qvsockaddr(static_cast<struct sockaddr *>(r.sa), r.len);
        EXPECT_STREQ(qvsockaddr_print(ga), r.text);
        EXPECT_GE(malloc_usable_size(ga), std::max<size_t>(r.size, sizeof(qvsockaddr_t)));
        char back[sizeof(struct sockaddr_un)];
        uint32_t len = qvsockaddr2sockaddr(ga, reinterpret_cast<struct sockaddr *>(back));
        qvsockaddr_t *again = sockaddr2qvsockaddr(reinterpret_cast<struct sockaddr *>(back), len);
        EXPECT_EQ(len, ga->a.ga_family == AF_UNIX ? 110u : 16u);
        EXPECT_STREQ(qvsockaddr_print(again), r.text);
        sockfree(again);
        sockfree(ga);
    }
    sockfree(nullptr);
}

// Paths of 108 bytes or more fill sun_path without a terminator; the
// record keeps them whole and prints what fits. One print buffer per family.
TEST(SockAddr, LongPathsAndPrintBuffers)
{
    std::string p108(108, 'p'), p200(200, 'q');
    struct sockaddr_un sun;
    for (const std::string &p : {p108, p200}) {
        qvsockaddr_t *un = sockcreate_un(p.c_str());
        memset(&sun, 0xff, sizeof sun);
        EXPECT_EQ(qvsockaddr2sockaddr(un, reinterpret_cast<struct sockaddr *>(&sun)), 110u);
        EXPECT_TRUE(std::string(sun.sun_path, 108) == p.substr(0, 108) && un->un.gun_path == p);
        EXPECT_EQ(qvsockaddr_print(un), ("UNIX/" + p).substr(0, 127));
        sockfree(un);
    }
    qvsockaddr_t *in = sockcreate_in(htons(80), htonl(0x7f000001)), *un = sockcreate_un("a");
    const char *first = qvsockaddr_print(un);
    EXPECT_STREQ(qvsockaddr_print(in), "INET4/127.0.0.1:80");
    EXPECT_STREQ(first, "UNIX/a");
    sockfree(in), sockfree(un);
}

TEST(SockAddrDeathTest, UnknownFamiliesAndNoMemoryStopTheDaemon)
{
    qvsockaddr_t *odd = sockcreate_un("x");
    odd->a.ga_family = AF_INET6;
    struct sockaddr_in6 sin6 = {};
    sin6.sin6_family = AF_INET6;
    char buf[sizeof(struct sockaddr_un)];
    EXPECT_DEATH(qvsockaddr_print(odd), "qv_sockaddr.cpp:qvsockaddr_print: assertion \"0\"");
    EXPECT_DEATH(qvsockaddr2sockaddr(odd, reinterpret_cast<struct sockaddr *>(buf)),
                 "qv_sockaddr.cpp:qvsockaddr2sockaddr: assertion \"0\"");
    EXPECT_DEATH(sockaddr2qvsockaddr(reinterpret_cast<struct sockaddr *>(&sin6), sizeof sin6),
                 "qv_sockaddr.cpp:sockaddr2qvsockaddr: assertion \"0\"");
    EXPECT_DEATH((qvtest::exhaust_heap(), sockcreate_in(0, 0)),
                 "qv_sockaddr.cpp:sockcreate: assertion \"ga\"");
    sockfree(odd);
}

} // namespace

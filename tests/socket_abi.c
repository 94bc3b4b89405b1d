/* The socket API from C, linked against the shared library: the address
 * type keeps its name beside the system's struct in_addr, and every
 * socket function and datum is exported. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include <qv_daemon.h>
#include <qvsockaddr_l2addr.h>

int main(void)
{
    typedef void (*fn)(void);
    const fn api[] = {
        (fn)sockcreate_un,
        (fn)sockcreate_in,
        (fn)sockfree,
        (fn)qvsockaddr2sockaddr,
        (fn)sockaddr2qvsockaddr,
        (fn)qvsockaddr_print,
        (fn)qvmodule_get_socket,
        (fn)qvmodule_get_socket_ip,
        (fn)qvmodule_get_socket_udp,
        (fn)qvmodule_get_socket_tcp,
        (fn)qvmodule_get_socket_unix,
        (fn)qvmodule_set_socket,
        (fn)qvmodule_fixup_socket,
        (fn)qvmodule_reset_socket,
        (fn)qvmodule_close,
        (fn)qvmodule_addr_local,
        (fn)qvmodule_connect,
        (fn)qvmodule_listen,
        (fn)qvmodule_accept,
        (fn)qvmodule_get_addr_remote,
        (fn)qvmodule_get_addr_local,
        (fn)qvmodule_set_option,
        (fn)qvmodule_set_recv,
        (fn)qvmodule_set_accept,
        (fn)qvmodule_set_write,
        (fn)qvmodule_set_connect,
        (fn)qvmodule_set_accept_flag,
        (fn)qvmodule_clear_accept_flag,
        (fn)qvmodule_set_connect_flag,
        (fn)qvmodule_clear_connect_flag,
        (fn)qvmodule_set_addr,
        (fn)qvmodule_set_qvmodule_addr,
        (fn)qvmodule_reset_qvmodule_addr,
        (fn)qvmodule_get_addr,
        (fn)qvmodule_sockfree,
        (fn)qvmodule_socket,
        (fn)qvmodule_socket_domain,
        (fn)qvmodule_socket_domain_unix,
        (fn)qvmodule_proto_set,
        (fn)qvmodule_proto_get,
        (fn)qvmodule_socket_disable_receive,
        (fn)qvmodule_socket_reenable_receive,
        (fn)qvmodule_socket_disable_write,
        (fn)qvmodule_socket_reenable_write,
        (fn)qvmodule_current_rx_module_get,
        (fn)qvmodule_socket_trace_on,
        (fn)qvmodule_socket_trace_off,
    };
    struct in_addr sys;
    in_addr a = htonl(0x0a000001);
    in_port p = htons(3000);
    qvsockaddr_t *ga = sockcreate_in(p, a);
    int ok = inet_pton(AF_INET, "10.0.0.1", &sys) == 1 && sys.s_addr == a &&
             strcmp(qvsockaddr_print(ga), "INET4/10.0.0.1:3000") == 0;
    size_t i;
    for (i = 0; i < sizeof(api) / sizeof(api[0]); i++)
        ok = ok && api[i] != NULL;
    sockfree(ga);
    if (!ok)
        fprintf(stderr, "socket API from C: mismatch\n");
    return ok ? 0 : 1;
}

/* The socket API from C, linked against the shared library: the address
 * type keeps its name beside the system's struct in_addr. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include <qv_daemon.h>
#include <qvsockaddr_l2addr.h>

int main(void)
{
    struct in_addr sys;
    in_addr a = htonl(0x0a000001);
    qvsockaddr_t *ga = sockcreate_in(htons(3000), a);
    int ok = inet_pton(AF_INET, "10.0.0.1", &sys) == 1 && sys.s_addr == a &&
             strcmp(qvsockaddr_print(ga), "INET4/10.0.0.1:3000") == 0 &&
             qvmodule_get_socket_tcp(NULL) == -1 && qvmodule_current_rx_module_get() == NULL;
    sockfree(ga);
    return ok ? 0 : 1;
}

// The show server table shared by the daemons and their client programs,
// and the argument names of a request.

#include <string.h>

#include "qv_assert.h"
#include "qv_shared.h"

namespace
{

constexpr struct sockaddr_in any_port(uint16_t port)
{
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = port; // host byte order until converted
    a.sin_addr.s_addr = INADDR_ANY;
    return a;
}

constexpr uint16_t port_of(qvsh_server_id_t id)
{
    return static_cast<uint16_t>(QVSH_SERVER_BASE_PORT + id);
}

} // namespace

extern "C" {

QV_EXPORT const char *arg_names[QVSH_ARG_ID_MAX] = {
    "interface", "level", "device", "vdcf", "vm", "client", "devtype", "devsn",
};

QV_EXPORT struct sockaddr_in qvtestd_addr = any_port(port_of(QVSH_SERVER_ID_QVTESTD));
QV_EXPORT struct sockaddr_in qvtestc_addr = any_port(port_of(QVSH_SERVER_ID_QVTESTC));
QV_EXPORT struct sockaddr_in kelpd_addr = any_port(port_of(QVSH_SERVER_ID_KELPD));
QV_EXPORT struct sockaddr_in ramsd_addr = any_port(port_of(QVSH_SERVER_ID_RAMSD));
QV_EXPORT struct sockaddr_in tovaid_addr = any_port(port_of(QVSH_SERVER_ID_TOVAID));
QV_EXPORT struct sockaddr_in lumd_addr = any_port(port_of(QVSH_SERVER_ID_LUMD));
QV_EXPORT struct sockaddr_in orbe_addr = any_port(port_of(QVSH_SERVER_ID_ORBE));

#define QVSH_ENTRY(id, name, addr)                                                                 \
    {                                                                                              \
        id, name, reinterpret_cast<struct sockaddr *>(&addr), sizeof(struct sockaddr_in)           \
    }

QV_EXPORT qvsh_server_t qvsh_server_list[QVSH_SERVER_ID_MAX] = {
    QVSH_ENTRY(QVSH_SERVER_ID_QVTESTD, "qvtestd", qvtestd_addr),
    QVSH_ENTRY(QVSH_SERVER_ID_QVTESTC, "qvtestc", qvtestc_addr),
    QVSH_ENTRY(QVSH_SERVER_ID_KELPD, "kelpd", kelpd_addr),
    QVSH_ENTRY(QVSH_SERVER_ID_RAMSD, "ramsd", ramsd_addr),
    QVSH_ENTRY(QVSH_SERVER_ID_TOVAID, "tovaid", tovaid_addr),
    QVSH_ENTRY(QVSH_SERVER_ID_LUMD, "lumd", lumd_addr),
    QVSH_ENTRY(QVSH_SERVER_ID_ORBE, "orbe", orbe_addr),
};

#undef QVSH_ENTRY

QV_EXPORT void qvsh_server_convert_to_network(qvsh_server_t *server, struct sockaddr *addr) noexcept
{
    QV_ASSERT_TEXT(server->addr->sa_family == AF_INET, "server->addr->sa_family == 2");
    struct sockaddr_in in;
    memcpy(&in, server->addr, sizeof(in));
    in.sin_port = htons(in.sin_port);
    in.sin_addr.s_addr = htonl(in.sin_addr.s_addr);
    memcpy(addr, &in, sizeof(in));
}

} // extern "C"

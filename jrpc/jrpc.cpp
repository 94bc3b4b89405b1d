// Stand-in for the management library: registrations are kept in order,
// and a show or trace handler can be run with a fresh result object.

#include "jrpc.h"

#include <string.h>

#include <string>
#include <vector>

namespace
{

struct Registration {
    jrpc_registration_t view;
    std::string app, name, help, keyword;
};

// Pointers into the strings stay valid: a registration is never moved
// after its view is set up.
std::vector<Registration *> &registry()
{
    static std::vector<Registration *> regs;
    return regs;
}

const char *keep(std::string &slot, const char *text)
{
    if (text == nullptr)
        return nullptr;
    slot = text;
    return slot.c_str();
}

void add(jrpc_reg_kind_t kind, const char *app, const char *name, const char *help,
         const char *keyword, int on, jrpc_method_handler_t handler)
{
    auto *r = new Registration;
    r->view.kind = kind;
    r->view.app = keep(r->app, app);
    r->view.name = keep(r->name, name);
    r->view.help = keep(r->help, help);
    r->view.keyword = keep(r->keyword, keyword);
    r->view.on = on;
    r->view.handler = handler;
    registry().push_back(r);
}

bool same(const char *a, const char *b)
{
    return a != nullptr && b != nullptr && strcmp(a, b) == 0;
}

// The latest registration wins, as a re-registration replaces a command.
const jrpc_registration_t *find(jrpc_reg_kind_t kind, const char *app, const char *keyword, int on)
{
    const auto &regs = registry();
    for (auto it = regs.rbegin(); it != regs.rend(); ++it) {
        const jrpc_registration_t &v = (*it)->view;
        if (v.kind == kind && same(v.app, app) && same(v.keyword, keyword) &&
            (kind == JRPC_REG_SHOW || v.on == on))
            return &v;
    }
    return nullptr;
}

jrpc_method_retval_t run(const jrpc_registration_t *reg, cJSON *root)
{
    jrpc_parse_info_t info{};
    info.jrpc_mtype = JRPC_REQUEST;
    info.jrpc_method = reg->keyword;
    jrpc_method_ctx ctx{&info, root};
    return reg->handler(&ctx);
}

int session_anchor;

} // namespace

extern "C" {

JRPC_EXPORT jrpc_session_handle jrpc_gl_amd_session = &session_anchor;

JRPC_EXPORT int jrpc_register_show_command(jrpc_session_handle, const char *app, const char *name,
                                           const char *help, const char *keyword,
                                           jrpc_method_handler_t handler) noexcept
{
    add(JRPC_REG_SHOW, app, name, help, keyword, 0, handler);
    return 0;
}

JRPC_EXPORT int jrpc_register_trace_command(jrpc_session_handle, const char *app, int on,
                                            const char *keyword,
                                            jrpc_method_handler_t handler) noexcept
{
    add(JRPC_REG_TRACE, app, nullptr, nullptr, keyword, on, handler);
    return 0;
}

JRPC_EXPORT size_t jrpc_registry_count(void) noexcept
{
    return registry().size();
}

JRPC_EXPORT const jrpc_registration_t *jrpc_registry_get(size_t i) noexcept
{
    return i < registry().size() ? &registry()[i]->view : nullptr;
}

JRPC_EXPORT jrpc_method_retval_t jrpc_invoke_show(const char *app, const char *keyword,
                                                  cJSON **result) noexcept
{
    *result = nullptr;
    const jrpc_registration_t *reg = find(JRPC_REG_SHOW, app, keyword, 0);
    if (reg == nullptr || reg->handler == nullptr)
        return JRPC_FAIL;
    cJSON *root = cJSON_CreateObject();
    if (root == nullptr)
        return JRPC_FAIL;
    jrpc_method_retval_t rv = run(reg, root);
    *result = root;
    return rv;
}

JRPC_EXPORT jrpc_method_retval_t jrpc_invoke_trace(const char *app, const char *keyword,
                                                   int on) noexcept
{
    const jrpc_registration_t *reg = find(JRPC_REG_TRACE, app, keyword, on);
    if (reg == nullptr || reg->handler == nullptr)
        return JRPC_FAIL;
    cJSON *root = cJSON_CreateObject();
    if (root == nullptr)
        return JRPC_FAIL;
    jrpc_method_retval_t rv = run(reg, root);
    cJSON_Delete(root);
    return rv;
}

} // extern "C"

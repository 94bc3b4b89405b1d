// Event history display: an object's ring as cJSON members, newest event
// first, each aged against one time read per command.
//
// Keys repeat wherever a level holds several items of a kind ("Event",
// "Action", "Elements", object headings); the order of the members is the
// layout, so every item is appended in the order it is shown.

#include <cjson/cJSON.h>
#include <stdio.h>

#include "event_private.h"
#include "qv_assert.h"
#include "qv_cjson.h"

namespace
{

// What every level of one command needs.
struct ShowCtx {
    const evh_module_t *module;
    utime_t now;
    bool extensive;
};

// Appends item to parent, or drops it when cJSON runs out of memory; a
// null result tells the caller to leave that branch out.
cJSON *add_item(cJSON *parent, const char *key, cJSON *item)
{
    if (item != nullptr && cJSON_AddItemToObject(parent, key, item))
        return item;
    cJSON_Delete(item);
    return nullptr;
}

void add_string(cJSON *parent, const char *key, const char *text)
{
    add_item(parent, key, cJSON_CreateString(text));
}

void event_show_single_einfo(cJSON *parent, const evh_einfo_t *einfo)
{
    cJSON *block = add_item(parent, "Event", cJSON_CreateObject());
    if (block == nullptr)
        return;
    add_string(block, "Heading", einfo->einfo_heading);
    for (int i = 0; i < einfo->einfo_next_element_write_index; i++)
        add_string(block, "Elements", einfo->einfo_elements[i]);
}

void event_show_all_einfo(const ShowCtx &sc, cJSON *parent, const evh_event_t *event)
{
    if (!sc.extensive)
        return;
    for (const evh_einfo_t *einfo : event->event_info)
        if (einfo)
            event_show_single_einfo(parent, einfo);
}

void event_show_single_action(cJSON *list, const char *action)
{
    add_string(list, "Action", action);
}

void event_show_action_list(const ShowCtx &sc, cJSON *shown, const evh_event_t *event)
{
    cJSON *list = add_item(shown, "Action List", cJSON_CreateObject());
    if (list == nullptr)
        return;
    event_show_single_action(list, event->event_action[0]);
    event_show_all_einfo(sc, list, event);
    for (int i = 1; i < event->event_next_action_write_index; i++)
        event_show_single_action(list, event->event_action[i]);
}

// A module without a naming function, or a function that has no name for
// the identifier, shows the identifier's number.
void add_event_id(const ShowCtx &sc, cJSON *shown, const evh_event_t *event)
{
    evh_event_atoi_t atoi_cb = sc.module->mod_cb.evh_event_atoi_cb;
    const char *name = atoi_cb ? atoi_cb(event->event_id) : nullptr;
    char number[8];
    if (name == nullptr) {
        snprintf(number, sizeof(number), "%u", unsigned{event->event_id});
        name = number;
    }
    if (event->event_repeation_count != 0)
        cJSON_AddStringToObject_fmt(shown, "Event ID", "%s.%d", name,
                                    int{event->event_repeation_count});
    else
        add_string(shown, "Event ID", name);
}

void event_show_single_event(const ShowCtx &sc, cJSON *history, const evh_event_t *event)
{
    cJSON *shown = add_item(history, "Event", cJSON_CreateObject());
    if (shown == nullptr)
        return;
    utime_t age;
    qvmodule_utime_subtract(&age, &sc.now, &event->event_when_utime);
    // time_print's buffer is shared: it is consumed here, before any other
    // call can overwrite it.
    cJSON_AddStringToObject_fmt(shown, "Timerstamp", "%s.%d", time_print(age.ut_sec),
                                int{age.ut_usec / 1000});
    add_event_id(sc, shown, event);
    if (event->event_next_action_write_index > 0)
        event_show_action_list(sc, shown, event);
    else
        event_show_all_einfo(sc, shown, event);
}

// Newest first: from the slot before the write index down to the oldest.
void event_show_ring(const ShowCtx &sc, cJSON *parent, const evh_object_t *obj)
{
    cJSON *history = add_item(parent, "Event History", cJSON_CreateObject());
    if (history == nullptr)
        return;
    int write_index = obj->obj_next_event_write_index;
    do {
        write_index = evh_last_event_index(write_index);
        QV_ASSERT(obj->obj_event[write_index]);
        event_show_single_event(sc, history, obj->obj_event[write_index]);
    } while (write_index != obj->obj_first_event_read_index);
}

bool ring_empty(const evh_object_t *obj)
{
    return obj->obj_first_event_read_index == obj->obj_next_event_write_index;
}

void event_show_single_object(const ShowCtx &sc, cJSON *ctx, const evh_object_t *obj,
                              const char *heading)
{
    cJSON *shown = add_item(ctx, heading ? heading : obj->obj_name, cJSON_CreateObject());
    if (shown != nullptr && !ring_empty(obj))
        event_show_ring(sc, shown, obj);
}

ShowCtx command(const evh_module_t *module, boolean is_extensive)
{
    ShowCtx sc{module, {}, is_extensive != FALSE};
    qvmodule_get_current_utime(&sc.now);
    return sc;
}

} // namespace

extern "C" QV_EXPORT void event_show(void *ctx, evh_module_t *module, evh_object_t *obj,
                                     boolean is_extensive) noexcept
{
    if (module == nullptr || obj == nullptr)
        return;
    const ShowCtx sc = command(module, is_extensive);
    if (!ring_empty(obj))
        event_show_ring(sc, static_cast<cJSON *>(ctx), obj);
}

extern "C" QV_EXPORT void event_show_module(void *ctx, evh_module_t *module,
                                            const char *object_name,
                                            const char *object_name_heading,
                                            boolean is_extensive) noexcept
{
    if (module == nullptr)
        return;
    const ShowCtx sc = command(module, is_extensive);
    auto *root = static_cast<cJSON *>(ctx);
    if (object_name != nullptr) {
        if (const evh_object_t *obj = evh_object_lookup(module, object_name))
            event_show_single_object(sc, root, obj, object_name_heading);
        return;
    }
    // The next node is taken before the current object is shown.
    hbt_node_t *next = hbt_iterate_next(module->mod_name_hroot, nullptr);
    while (hbt_node_t *node = next) {
        next = hbt_iterate_next(module->mod_name_hroot, node);
        event_show_single_object(sc, root, evh_n2obj(node), object_name_heading);
    }
}

// Event history store: modules of named objects, each object with a ring
// of 16 slots holding its 15 newest events.
//
// Records come from four block pools; every text is a copy charged to the
// "Event History" module. Recording costs constant time: fixed arrays in
// the records, and no search beyond the three-slot look-back for a repeat.
// Nothing here takes a lock: the store belongs to the event-loop thread.

#include <string.h>

#include "event_private.h"
#include "qv_assert.h"
#include "qv_memory_private.h"

extern "C" {
QV_EXPORT char evh_action_temp_str[EVH_ACTION_TEMP_STR_SIZE];
}

qvmodule *qv::evh_qvmodule = nullptr;
block_t qv::evh_module_block = nullptr;
block_t qv::evh_object_block = nullptr;
block_t qv::evh_event_block = nullptr;
block_t qv::evh_einfo_block = nullptr;
evh_copy_text_fn qv::evh_copy_text = qvmodule_mem_strdup;
char qv::evh_missing_text[1] = "";

static_assert(EVH_MAX_EVENTS == 16, "the ring's assertion texts name 16 slots");

namespace
{

constexpr int evh_next_index(int i) noexcept
{
    return i + 1 == EVH_MAX_EVENTS ? 0 : i + 1;
}

void evh_free_text(char *text)
{
    if (text != evh_missing_text)
        qvmodule_mem_free(evh_qvmodule, text);
}

void evh_event_inc_ref_count(evh_event_t *event)
{
    event->event_ref_count++;
}

void evh_einfo_free(evh_einfo_t *einfo)
{
    for (int i = 0; i < einfo->einfo_next_element_write_index; i++) {
        QV_ASSERT(einfo->einfo_elements[i]);
        evh_free_text(einfo->einfo_elements[i]);
        einfo->einfo_elements[i] = nullptr;
    }
    evh_free_text(einfo->einfo_heading);
    qvmodule_block_free(evh_einfo_block, einfo);
}

void evh_event_free(evh_event_t *event)
{
    for (int i = 0; i < event->event_next_action_write_index; i++) {
        QV_ASSERT(event->event_action[i]);
        evh_free_text(event->event_action[i]);
        event->event_action[i] = nullptr;
    }
    for (evh_einfo_t *&einfo : event->event_info)
        if (einfo) {
            evh_einfo_free(einfo);
            einfo = nullptr;
        }
    qvmodule_block_free(evh_event_block, event);
}

// Moves the write index on; when it reaches the oldest event the ring is
// full, and the oldest event makes room.
void evh_object_write_index_increment(evh_object_t *obj)
{
    obj->obj_next_event_write_index = evh_next_index(obj->obj_next_event_write_index);
    if (obj->obj_next_event_write_index == obj->obj_first_event_read_index) {
        int first = obj->obj_first_event_read_index;
        evh_event_dec_ref_count(obj->obj_event[first]);
        obj->obj_event[first] = nullptr;
        obj->obj_first_event_read_index = evh_next_index(first);
    }
    if (obj->obj_next_event_write_index < obj->obj_first_event_read_index)
        QV_ASSERT(obj->obj_next_event_write_index == (obj->obj_first_event_read_index - 1));
}

void evh_event_enqueue(evh_object_t *obj, evh_event_t *event)
{
    int write_index = obj->obj_next_event_write_index;
    QV_ASSERT_TEXT((write_index >= 0) && (write_index < EVH_MAX_EVENTS),
                   "(write_index >= 0) && (write_index < 16)");
    QV_ASSERT(!obj->obj_event[write_index]);
    obj->obj_event[write_index] = event;
    evh_object_write_index_increment(obj);
    evh_event_inc_ref_count(event);
}

int evh_einfo_get_free_index(const evh_event_t *event)
{
    for (int i = 0; i < EVH_MAX_EINFO; i++)
        if (event->event_info[i] == nullptr)
            return i;
    return -1;
}

// Stores a copy of text at slots[count] and counts it, unless the array
// is full or the copy cannot be made: a missing entry would leave a null
// among the counted ones for the free path to trip over.
template <size_t N> void evh_append_text(char *(&slots)[N], uint8_t &count, const char *text)
{
    if (count == N)
        return;
    if (char *copy = evh_copy_text(evh_qvmodule, text)) {
        slots[count] = copy;
        count++;
    }
}

} // namespace

int qv::evh_name_cmp(hbt_node_t *a, hbt_node_t *b) noexcept
{
    return strcmp(evh_n2obj(a)->obj_name, evh_n2obj(b)->obj_name);
}

boolean qv::evh_event_dec_ref_count(evh_event_t *event) noexcept
{
    QV_ASSERT(event);
    QV_ASSERT(event->event_ref_count);
    if (--event->event_ref_count != 0)
        return FALSE;
    evh_event_free(event);
    return TRUE;
}

extern "C" QV_EXPORT void evh_init(void) noexcept
{
    if (evh_qvmodule != nullptr)
        return;
    evh_qvmodule = qvmodule_alloc("Event History", 0, nullptr);
    if (!qvmodule_create(evh_qvmodule))
        qvmodule_quit(22);
    evh_module_block = qvmodule_block_init(sizeof(evh_module_t), "evh_module_t");
    evh_object_block = qvmodule_block_init(sizeof(evh_object_t), "evh_object_t");
    evh_event_block = qvmodule_block_init(sizeof(evh_event_t), "evh_event_t");
    evh_einfo_block = qvmodule_block_init(sizeof(evh_einfo_t), "evh_einfo_t");
}

extern "C" QV_EXPORT evh_module_t *evh_register_cb(const char *mod_name,
                                                   evh_event_cb_t *cb) noexcept
{
    auto *module = QV_RECORD_ALLOC(evh_module_t, evh_module_block);
    module->mod_cb = *cb;
    // A name is the record's identity: without memory for it the daemon
    // stops, as it does when the record itself cannot be had.
    module->mod_name = evh_copy_text(evh_qvmodule, mod_name);
    QV_ASSERT(module->mod_name);
    return module;
}

// The probe points at the caller's text, so a name of any length is
// compared in full, and nothing is copied.
extern "C" QV_EXPORT evh_object_t *evh_object_lookup(evh_module_t *module,
                                                     const char *name) noexcept
{
    evh_object_t key{};
    key.obj_name = const_cast<char *>(name);
    return evh_n2obj(hbt_lookup(module->mod_name_hroot, &key.obj_hnode, evh_name_cmp));
}

extern "C" QV_EXPORT evh_object_t *evh_object_add(evh_module_t *module, const char *name) noexcept
{
    if (evh_object_t *found = evh_object_lookup(module, name))
        return found;
    auto *obj = QV_RECORD_ALLOC(evh_object_t, evh_object_block);
    obj->obj_module = module;
    obj->obj_name = evh_copy_text(evh_qvmodule, name);
    QV_ASSERT(obj->obj_name);
    QV_ASSERT(hbt_insert(&module->mod_name_hroot, &obj->obj_hnode, evh_name_cmp));
    return obj;
}

extern "C" QV_EXPORT void evh_object_delete(evh_object_t **object) noexcept
{
    *object = nullptr;
}

// Both stamps come from one reading, so they never disagree across the
// turn of a second.
extern "C" QV_EXPORT evh_event_t *evh_event_new(evh_object_t *obj, event_id_t ev_id) noexcept
{
    auto *event = QV_RECORD_ALLOC(evh_event_t, evh_event_block);
    event->event_id = ev_id;
    qvmodule_get_current_utime(&event->event_when_utime);
    event->event_when = event->event_when_utime.ut_sec;
    evh_event_enqueue(obj, event);
    return event;
}

extern "C" QV_EXPORT evh_einfo_t *evh_einfo_new(evh_event_t *event, const char *heading) noexcept
{
    int index = evh_einfo_get_free_index(event);
    if (index < 0)
        return nullptr;
    auto *einfo = QV_RECORD_ALLOC(evh_einfo_t, evh_einfo_block);
    char *copy = evh_copy_text(evh_qvmodule, heading);
    einfo->einfo_heading = copy ? copy : evh_missing_text;
    event->event_info[index] = einfo;
    return einfo;
}

extern "C" QV_EXPORT void event_record_einfo(evh_einfo_t *einfo, const char *element) noexcept
{
    evh_append_text(einfo->einfo_elements, einfo->einfo_next_element_write_index, element);
}

extern "C" QV_EXPORT void event_record_action(evh_event_t *event, const char *action) noexcept
{
    evh_append_text(event->event_action, event->event_next_action_write_index, action);
}

extern "C" QV_EXPORT evh_event_t *evh_is_last_event_same(evh_object_t *obj,
                                                         event_id_t ev_id) noexcept
{
    int index = obj->obj_next_event_write_index;
    for (int n = 0; n < 3; n++) {
        index = evh_last_event_index(index);
        evh_event_t *event = obj->obj_event[index];
        if (event && event->event_id == ev_id)
            return event;
    }
    return nullptr;
}

extern "C" QV_EXPORT void evh_inc_repeation_count(evh_event_t *event) noexcept
{
    event->event_repeation_count++;
}

extern "C" QV_EXPORT void evh_event_release_last(evh_object_t *obj, evh_event_t *event) noexcept
{
    int last_index = evh_last_event_index(obj->obj_next_event_write_index);
    QV_ASSERT(obj->obj_event[last_index] == event);
    obj->obj_event[last_index] = nullptr;
    obj->obj_next_event_write_index = last_index;
    QV_ASSERT(evh_event_dec_ref_count(event));
}

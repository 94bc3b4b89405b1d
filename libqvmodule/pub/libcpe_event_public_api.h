/* Event history: for each named object of an application, a ring of its
 * newest events (at most 15), each with a time stamp, action texts and
 * information blocks, and the JSON display of those rings.
 *
 * An application registers a module with a function that names its event
 * identifiers, adds objects to it by name and records events on them.
 * Every text handed in is copied; the copies are charged to the library
 * module "Event History" and freed when their event leaves the ring.
 * When memory runs out, a text that cannot be copied is left out and the
 * event is still recorded: an action or element is dropped as one beyond
 * capacity would be, and a heading reads as empty. A module's or object's
 * name is its identity: running out of memory for it stops the daemon, as
 * for any record of the library.
 *
 * Modules and objects are never freed, and evh_object_delete only clears
 * the caller's handle: every name ever added stays in the store for the
 * life of the process. Key objects by something bounded (an interface, a
 * peer from configuration), never by something that keeps changing. */
#ifndef LIBCPE_EVENT_PUBLIC_API_H
#define LIBCPE_EVENT_PUBLIC_API_H

#include <stdint.h>
#include <sys/types.h>
#include "qv_defs.h"
#include "qv_hbtree.h"

QV_BEGIN_DECLS

/* Slots of an object's ring; one always stays empty, so 15 events. */
#define EVH_MAX_EVENTS 16
#define EVH_MAX_ACTIONS 8
#define EVH_MAX_EINFO 2
#define EVH_MAX_ELEMENTS 16
/* The customary bound on object names. Names are compared in full, so a
 * longer one is still its own object, found the same way every time. */
#define EVH_NAME_MAX 128
/* Size of evh_action_temp_str. */
#define EVH_ACTION_TEMP_STR_SIZE 128

typedef uint16_t event_id_t;

/* The display name of an event identifier. */
typedef const char *(*evh_event_atoi_t)(event_id_t ev_id);

typedef struct evh_event_cb_ {
    evh_event_atoi_t evh_event_atoi_cb;
} evh_event_cb_t;

typedef struct evh_module_ {
    char *mod_name;
    evh_event_cb_t mod_cb;
    hbt_node_t *mod_name_hroot; /* objects, in strcmp order of their names */
} evh_module_t;

typedef struct evh_einfo_ {
    char *einfo_heading;
    char *einfo_elements[EVH_MAX_ELEMENTS];
    uint8_t einfo_next_element_write_index;
} evh_einfo_t;

typedef struct evh_event_ {
    event_id_t event_id;
    uint8_t event_ref_count; /* 1 while the event is in a ring */
    uint8_t event_next_action_write_index;
    uint16_t event_repeation_count; /* wraps from 65535 to 0 */
    time_t event_when;
    utime_t event_when_utime;
    char *event_action[EVH_MAX_ACTIONS];
    evh_einfo_t *event_info[EVH_MAX_EINFO]; /* a null slot is free */
} evh_event_t;

/* The live events run from the first-read slot up to the slot before the
 * next-write slot, wrapping from 15 to 0; every other slot is null. */
typedef struct evh_object_ {
    char *obj_name;
    hbt_node_t obj_hnode;
    evh_module_t *obj_module;
    evh_event_t *obj_event[EVH_MAX_EVENTS];
    int obj_first_event_read_index;
    int obj_next_event_write_index;
} evh_object_t;

/* Room for an application to compose a text before recording it; the
 * store itself never touches it. */
QV_EXPORT extern char evh_action_temp_str[EVH_ACTION_TEMP_STR_SIZE];

/* Creates the "Event History" module and the store's pools; start-up
 * calls it, and later calls do nothing. */
QV_EXPORT void evh_init(void) QV_NOEXCEPT;
/* A new module with copies of the name and of the callbacks. */
QV_EXPORT evh_module_t *evh_register_cb(const char *mod_name, evh_event_cb_t *cb) QV_NOEXCEPT;
/* The module's object of that name, or null. */
QV_EXPORT evh_object_t *evh_object_lookup(evh_module_t *module, const char *name) QV_NOEXCEPT;
/* The existing object of that name, or a new one with an empty ring. */
QV_EXPORT evh_object_t *evh_object_add(evh_module_t *module, const char *name) QV_NOEXCEPT;
/* Sets *object to null; the object and its events stay in the store. */
QV_EXPORT void evh_object_delete(evh_object_t **object) QV_NOEXCEPT;

/* Records a new event; on a ring of 15 the oldest event is freed. */
QV_EXPORT evh_event_t *evh_event_new(evh_object_t *obj, event_id_t ev_id) QV_NOEXCEPT;
/* A new information block, or null when the event has two already. */
QV_EXPORT evh_einfo_t *evh_einfo_new(evh_event_t *event, const char *heading) QV_NOEXCEPT;
/* Appends a copy of the text; dropped when the block is full. */
QV_EXPORT void event_record_einfo(evh_einfo_t *einfo, const char *element) QV_NOEXCEPT;
/* Appends a copy of the text; dropped when the event is full. */
QV_EXPORT void event_record_action(evh_event_t *event, const char *action) QV_NOEXCEPT;
/* The newest of the object's three newest events with this identifier,
 * or null. */
QV_EXPORT evh_event_t *evh_is_last_event_same(evh_object_t *obj, event_id_t ev_id) QV_NOEXCEPT;
/* Counts one more repetition of the event. */
QV_EXPORT void evh_inc_repeation_count(evh_event_t *event) QV_NOEXCEPT;
/* Takes back and frees the event that evh_event_new just returned for the
 * object; an event that it pushed out of a full ring stays gone. */
QV_EXPORT void evh_event_release_last(evh_object_t *obj, evh_event_t *event) QV_NOEXCEPT;

/* Adds the object's events, newest first, to the cJSON object ctx under
 * "Event History"; nothing for a null module or object or an empty ring. */
QV_EXPORT void event_show(void *ctx, evh_module_t *module, evh_object_t *obj,
                          boolean is_extensive) QV_NOEXCEPT;
/* Adds one member per object to the cJSON object ctx: the object called
 * object_name, or with a null object_name every object of the module in
 * order of name. Each member is keyed by object_name_heading when that is
 * not null, else by the object's name. */
QV_EXPORT void event_show_module(void *ctx, evh_module_t *module, const char *object_name,
                                 const char *object_name_heading, boolean is_extensive) QV_NOEXCEPT;

QV_END_DECLS

#endif

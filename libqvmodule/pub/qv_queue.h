/* Circular doubly linked lists threaded through a leading link.
 *
 * A list has a head element whose links point to itself when the list is
 * empty; it is walked from head->q_forw until the head comes round again.
 * Unlike the C library's insque/remque there is no null predecessor, and
 * a removed element has both links cleared, so "linked" is testable. */
#ifndef QV_QUEUE_H
#define QV_QUEUE_H

/* The C library declares its own insque and remque here. They are seen
 * under their names now, whichever of the two headers a source includes
 * first, so that the macros below rename only this header's uses and the
 * source's own calls. */
#include <search.h>

#include "qv_defs.h"

QV_BEGIN_DECLS

typedef struct _qelement {
    struct _qelement *q_forw;
    struct _qelement *q_back;
} qelement;

/* Links elem right after pred. */
static inline void qv_insque(void *elem, void *pred)
{
    qelement *e = (qelement *)elem;
    qelement *p = (qelement *)pred;
    e->q_back = p;
    e->q_forw = p->q_forw;
    p->q_forw->q_back = e;
    p->q_forw = e;
}

/* Unlinks elem and clears its links. */
static inline void qv_remque(void *elem)
{
    qelement *e = (qelement *)elem;
    e->q_forw->q_back = e->q_back;
    e->q_back->q_forw = e->q_forw;
    e->q_forw = NULL;
    e->q_back = NULL;
}

/* Makes head an empty list. */
static inline void qv_queue_init(void *head)
{
    qelement *h = (qelement *)head;
    h->q_forw = h;
    h->q_back = h;
}

QV_END_DECLS

/* insque(elem, pred) and remque(elem) are these functions. */
#define insque qv_insque
#define remque qv_remque

#ifdef __cplusplus
namespace qv
{
/* Typed forms for records that begin with a pair of links. The macros
 * above name these qv::qv_insque and qv::qv_remque, which qv::insque and
 * qv::remque reach as well; the global functions are named in full. */
template <class T> inline void insque(T *elem, T *pred) noexcept
{
    ::qv_insque(elem, pred);
}
template <class T> inline void remque(T *elem) noexcept
{
    ::qv_remque(elem);
}
template <class T> inline void queue_init(T *head) noexcept
{
    ::qv_queue_init(head);
}
template <class T> inline void append(T *elem, T *head) noexcept
{
    ::qv_insque(elem, reinterpret_cast<qelement *>(head)->q_back);
}
/* Calls fn on every element; fn may unlink the element it is given. */
template <class T, class F> inline void for_each(T *head, F fn) noexcept
{
    qelement *h = reinterpret_cast<qelement *>(head);
    for (qelement *e = h->q_forw, *next; e != h; e = next) {
        next = e->q_forw;
        fn(reinterpret_cast<T *>(e));
    }
}
} // namespace qv
#endif

#endif

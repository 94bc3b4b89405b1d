/* The list header before the C library's: insque and remque still reach
 * the list helpers. */
#include "qv_queue.h"

#include <search.h>
#include <stdio.h>

int queue_other_order_failures(void);

int queue_other_order_failures(void)
{
    qelement head, a;
    int failures = 0;
    qv_queue_init(&head);
    insque(&a, &head);
    remque(&a);
    if (a.q_forw != NULL || a.q_back != NULL) {
        printf("other order: removed element keeps links %p %p\n", (void *)a.q_forw,
               (void *)a.q_back);
        failures++;
    }
    if (head.q_forw != &head || head.q_back != &head) {
        printf("other order: head not empty again\n");
        failures++;
    }
    return failures;
}

/* insque and remque from C reach the list helpers, not the C library's
 * functions of the same names, whichever header comes first; the other
 * order is in queue_c_test_order.c. */
#include <search.h>
#include <stdio.h>

#include "qv_queue.h"

int queue_other_order_failures(void);

static int failures;

static void expect_ptr(const char *what, const void *want, const void *got)
{
    if (want != got) {
        printf("%s: expected %p, got %p\n", what, want, got);
        failures++;
    }
}

int main(void)
{
    qelement head, a, b;
    qv_queue_init(&head);
    insque(&a, head.q_back);
    insque(&b, head.q_back);
    expect_ptr("head's first", &a, head.q_forw);
    expect_ptr("head's last", &b, head.q_back);
    expect_ptr("b's previous", &a, b.q_back);
    remque(&a);
    expect_ptr("removed element's forward link", NULL, a.q_forw);
    expect_ptr("removed element's back link", NULL, a.q_back);
    expect_ptr("head's first after removal", &b, head.q_forw);
    expect_ptr("b's previous after removal", &head, b.q_back);
    failures += queue_other_order_failures();
    return failures != 0;
}

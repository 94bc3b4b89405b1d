// Signals: kernel-event registrations delivered from the event loop under
// the giant lock, action registrations installed with sigaction, ignored
// signals, and their names for messages.

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <event2/event.h>

#include "qv_assert.h"
#include "qv_daemon_private.h"
#include "qv_signal_private.h"

extern "C" {
QV_EXPORT qvmodule_signal qvmodule_signals[QVMODULE_SIGNAL_MAX] = {};
QV_EXPORT uint8_t sig_count = 0;
}

namespace
{

constexpr int kHighestSignal = 64;

// The used entries are exactly those before the first free one.
qvmodule_signal *find(int signo)
{
    for (qvmodule_signal &sig : qvmodule_signals) {
        if (sig.sig_sig == 0)
            break;
        if (sig.sig_sig == signo)
            return &sig;
    }
    return nullptr;
}

bool registrable(int signo)
{
    return find(signo) == nullptr && sig_count < QVMODULE_SIGNAL_MAX;
}

qvmodule_signal *take_entry(int signo)
{
    qvmodule_signal *sig = &qvmodule_signals[sig_count++];
    *sig = {};
    sig->sig_sig = signo;
    return sig;
}

} // namespace

extern "C" QV_EXPORT void qvmodule_signal_register_kevent(int signo,
                                                          qvmodule_signal_func func) noexcept
{
    QV_ASSERT_TEXT(registrable(signo), "0");
    QV_GIANT_LOCK_SCOPE();
    qvmodule_signal *sig = take_entry(signo);
    sig->sig_kevent_disabled = FALSE;
    sig->sig_func = func;
    QV_ASSERT(!sig->sig_event);
    sig->sig_event =
        event_new(g_event_base, signo, EV_SIGNAL | EV_PERSIST, qvmodule_signal_event_cb, sig);
    QV_ASSERT(sig->sig_event);
    QV_ASSERT_TEXT(event_add(sig->sig_event, nullptr) == 0,
                   "event_add(sig->sig_event, ((void *)0)) == 0");
}

void qv::qvmodule_signal_event_cb(int fd, short event, void *arg) noexcept
{
    auto *sig = static_cast<qvmodule_signal *>(arg);
    QV_ASSERT_TEXT((event & EV_SIGNAL) == EV_SIGNAL, "(event & 0x08) == 0x08");
    {
        QV_GIANT_LOCK_SCOPE();
        if (!sig->sig_kevent_disabled) {
            sig->sig_func(fd, sig->sig_sig);
            return;
        }
    }
    // Disabled after libevent caught it: the signal goes back to the process,
    // whose own disposition now applies. A pid below 1 would reach a process
    // group or every process the daemon may signal.
    if (daemon_pid > 0)
        kill(daemon_pid, sig->sig_sig);
}

extern "C" QV_EXPORT void qvmodule_signal_disable_kevent(int signo) noexcept
{
    QV_GIANT_LOCK_SCOPE();
    if (qvmodule_signal *sig = find(signo)) {
        sig->sig_kevent_disabled = TRUE;
        QV_ASSERT(sig->sig_event);
        QV_ASSERT(event_del(sig->sig_event) == 0);
    }
}

extern "C" QV_EXPORT void qvmodule_signal_reenable_kevent(int signo) noexcept
{
    QV_GIANT_LOCK_SCOPE();
    if (qvmodule_signal *sig = find(signo)) {
        sig->sig_kevent_disabled = FALSE;
        QV_ASSERT(sig->sig_event);
        QV_ASSERT_TEXT(event_add(sig->sig_event, nullptr) == 0,
                       "event_add(sig->sig_event, ((void *)0)) == 0");
    }
}

extern "C" QV_EXPORT void
qvmodule_signal_register_action(int signo, qvmodule_sig_handler sig_handler,
                                qvmodule_sig_sigaction sig_sigaction) noexcept
{
    if (sig_handler)
        QV_ASSERT(!sig_sigaction);
    else
        QV_ASSERT(sig_sigaction);
    QV_ASSERT_TEXT(registrable(signo), "0");
    qvmodule_signal *sig = take_entry(signo);

    struct sigaction sa = {};
    sigemptyset(&sa.sa_mask);
    if (sig_handler) {
        sa.sa_handler = sig_handler;
        sa.sa_flags = SA_RESTART;
        sig->sig_handler = sig_handler;
    } else {
        sa.sa_sigaction = sig_sigaction;
        sa.sa_flags = SA_RESTART | SA_SIGINFO;
        sig->sig_sigaction = sig_sigaction;
    }
    QV_ASSERT_TEXT(sigaction(signo, &sa, nullptr) >= 0, "0");
}

extern "C" QV_EXPORT void qvmodule_signal_ignore(int sig) noexcept
{
    struct sigaction sa = {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    if (sigaction(sig, &sa, nullptr) < 0) {
        int err = errno;
        trace_cb(trace_global, FALSE, LOG_ERR, "sigaction(SIG%s): errno:%d", qvmodule_signame(sig),
                 err);
        exit(0);
    }
}

extern "C" QV_EXPORT const char *qvmodule_signame(int sig) noexcept
{
    if (sig < 1 || sig > kHighestSignal)
        return "Unknown signal";
    // libc describes the classic signals only.
    const char *descr = sigdescr_np(sig);
    return descr ? descr : "Real-time signal";
}

extern "C" QV_EXPORT void qvmodule_signal_init(void) noexcept
{
    signal(SIGPIPE, SIG_IGN);
}

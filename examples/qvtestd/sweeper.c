/* "sweeper": removes the daemon's old show-command output files. The show
 * server leaves one file per request under /var/tmp/ and nothing else
 * removes them, so a daemon queried for months would fill the directory.
 *
 * The directory may be large, so the sweep is a background job: each call
 * looks at a bounded slice of entries and returns to the loop, and the job
 * deletes itself when the directory is done. A timer starts a new sweep
 * every hour. */
#include "qvtestd.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define SWEEP_DIR "/var/tmp/"
#define SWEEP_AGE_SECONDS 3600
#define SWEEP_EVERY_SECONDS 3600
/* At most this many entries per call, and never past the slice time the
 * library recommends: the loop keeps serving while a sweep runs. */
#define SWEEP_ENTRIES_PER_CALL 64

static qvmodule *sweeper_module;
static qvmodule_job *sweep_job;
static DIR *sweep_dir;
static unsigned int sweep_examined, sweep_removed;

/* A show output file of this program: "<program>.<command>.<14 digits>",
 * or with nothing after the last '.' when the time was not to be had. */
static boolean is_show_output(const char *name)
{
    size_t plen = strlen(progname);
    const char *stamp = strrchr(name, '.');
    size_t digits;

    if (strncmp(name, progname, plen) != 0 || name[plen] != '.' || stamp == name + plen)
        return FALSE;
    for (digits = 0; isdigit((unsigned char)stamp[1 + digits]); digits++)
        ;
    return stamp[1 + digits] == '\0' && (digits == 0 || digits == 14);
}

/* Only regular files of our own user, never what a link points to. */
static void sweep_entry(const char *name, time_t now)
{
    struct stat st;

    sweep_examined++;
    if (!is_show_output(name) || fstatat(dirfd(sweep_dir), name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode) || st.st_uid != geteuid() || now - st.st_mtime < SWEEP_AGE_SECONDS)
        return;
    if (unlinkat(dirfd(sweep_dir), name, 0) == 0)
        sweep_removed++;
}

static void sweep_finish(qvmodule_job *job)
{
    closedir(sweep_dir);
    sweep_dir = NULL;
    sweep_job = NULL;
    QVTESTD_TRACE("sweeper: %u entries of %s examined, %u old show outputs removed", sweep_examined,
                  SWEEP_DIR, sweep_removed);
    /* Freed by the dispatcher once this call returns. */
    qvmodule_job_delete(job);
}

static void sweep_slice(qvmodule_job *job)
{
    time_t now = qvmodule_get_current_time();
    utime_t start, elapsed;
    int n;

    qvmodule_get_current_utime(&start);
    for (n = 0; n < SWEEP_ENTRIES_PER_CALL; n++) {
        struct dirent *de = readdir(sweep_dir);

        if (de == NULL) {
            sweep_finish(job);
            return;
        }
        sweep_entry(de->d_name, now);
        qvmodule_get_elapsed_utime(&elapsed, &start);
        if (qvmodule_utime_should_suspend(&elapsed))
            return;
    }
}

void sweeper_start(void)
{
    if (sweep_job != NULL)
        return;
    sweep_dir = opendir(SWEEP_DIR);
    if (sweep_dir == NULL) {
        trace_cb(trace_global, TRUE, LOG_ERR, "sweeper: cannot open %s: %s", SWEEP_DIR,
                 strerror(errno));
        return;
    }
    sweep_examined = sweep_removed = 0;
    sweep_job = qvmodule_job_create_background(sweeper_module, QVMODULE_JOB_PRIORITY_BACKGROUND,
                                               "sweep", sweep_slice, NULL);
}

static void sweep_due(qvmodule_timer *timer, time_t interval)
{
    (void)timer;
    (void)interval;
    sweeper_start();
}

void sweeper_init(void)
{
    sweeper_module = qvmodule_alloc("sweeper", 0, NULL);
    qvmodule_create(sweeper_module);
    qvmodule_timer_create_jittered(sweeper_module, "sweep due", 0, SWEEP_EVERY_SECONDS, 10,
                                   sweep_due, NULL);
}

/* A daemon built against the headers loads a library of the same version,
 * and both are the project's version (argv[1]). */
#include <qv_version.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv)
{
    char macros[32];
    int failed = 0;
    snprintf(macros, sizeof macros, "%d.%d.%d", QV_VERSION_MAJOR, QV_VERSION_MINOR,
             QV_VERSION_PATCH);
    if (argc != 2) {
        fprintf(stderr, "usage: %s project-version\n", argv[0]);
        return 2;
    }
    if (strcmp(macros, argv[1]) != 0 || strcmp(QV_VERSION_STRING, argv[1]) != 0) {
        fprintf(stderr, "header: macros %s, string %s; expected %s\n", macros, QV_VERSION_STRING,
                argv[1]);
        failed = 1;
    }
    if (strcmp(qv_version(), QV_VERSION_STRING) != 0) {
        fprintf(stderr, "qv_version() is %s; the header says %s\n", qv_version(),
                QV_VERSION_STRING);
        failed = 1;
    }
    if (qv_version_number() != QV_VERSION_NUMBER) {
        fprintf(stderr, "qv_version_number() is %d; the header says %d\n", qv_version_number(),
                QV_VERSION_NUMBER);
        failed = 1;
    }
    printf("built against %s, running %s\n", QV_VERSION_STRING, qv_version());
    return failed;
}

// The command line of a benchmark program: the caller's own flags, plus the
// program's defaults for any flag the caller did not give.
#pragma once

#include <string.h>

#include <initializer_list>
#include <vector>

namespace qvbench
{

// Each default is "--flag=value"; it is added unless argv names the flag.
inline std::vector<char *> args_with_defaults(int argc, char **argv,
                                              std::initializer_list<const char *> defaults)
{
    std::vector<char *> args(argv, argv + argc);
    for (const char *d : defaults) {
        size_t flag_len = strcspn(d, "=");
        bool given = false;
        for (int i = 1; i < argc && !given; i++)
            given = strncmp(argv[i], d, flag_len) == 0;
        if (!given)
            args.push_back(const_cast<char *>(d));
    }
    return args;
}

} // namespace qvbench

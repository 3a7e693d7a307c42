// sorva: command-line entry point.
#include "App/HeadlessApp.h"

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    sorva::HeadlessOptions options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("usage: sorva [--headless] [--simulate] [--help]\n");
            return 0;
        }
        if (std::strcmp(argv[i], "--simulate") == 0) {
            options.simulate = true;
        } else if (std::strcmp(argv[i], "--headless") != 0) {
            std::fprintf(stderr, "sorva: unknown argument '%s'; try --help\n", argv[i]);
            return 2;
        }
    }
    // There is no panel yet: the program runs headless with or without a
    // display.
    return sorva::runHeadless(argc, argv, options);
}

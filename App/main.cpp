// sorva: command-line entry point.
#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::printf("usage: sorva [--help]\n");
        return 0;
    }
    std::fprintf(stderr, "sorva: nothing to do yet; try --help\n");
    return 2;
}

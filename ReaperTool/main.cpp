// The reaper command. Its analysis arrives with the path analyzer; until then it
// only checks its arguments.
#include <cstdio>

int main(int argc, char** argv) {
    (void)argv;
    if (argc < 3) {
        fprintf(stderr, "usage: reaper <volume root> <target system version>");
        return 1;
    }
    return 3;
}

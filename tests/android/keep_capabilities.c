// Runs a program with just one capability, as the platform's init starts a service of root's that
// has a line of capabilities:  keep_capabilities NUMBER PROGRAM ARGUMENTS...
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

int main(int argc, char **argv) {
    const int kept = argc > 2 ? atoi(argv[1]) : -1;
    // What the bounding set lacks a program of root's does not get. The first number that is no
    // capability ends the loop.
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
        if (capability != kept) {
            prctl(PR_CAPBSET_DROP, capability);
        }
    }
    execv(argv[2], argv + 2);
    perror(argv[2]);
    return 127;
}

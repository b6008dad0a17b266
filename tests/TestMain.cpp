// Test main: moves the test process into its own IPC namespace before
// anything else, so that the library's fixed segment keys are private to
// this process and the children it forks. Without the privilege to do so,
// tests fall back to running one at a time under a host-wide file lock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (unshare(CLONE_NEWIPC) != 0) {
        int err = errno;
        fprintf(stderr,
                "\n*** WARNING: unshare(CLONE_NEWIPC) failed: %s.\n"
                "*** Tests share the host's segments and run one at a time.\n\n",
                strerror(err));
        int fd = open("/tmp/qv_wm_tests.lock", O_CREAT | O_RDWR, 0666);
        if (fd < 0 || flock(fd, LOCK_EX) != 0) {
            fprintf(stderr, "*** cannot serialise tests either: %s\n", strerror(errno));
            return 2;
        }
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

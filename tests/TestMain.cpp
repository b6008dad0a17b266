// Test main: moves the test process into its own IPC namespace first, so the
// library's fixed segment keys are private to it and the children it forks.
// Without the privilege, tests run one at a time under a host-wide file lock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (unshare(CLONE_NEWIPC) != 0) {
        perror("\n*** WARNING: unshare(CLONE_NEWIPC) failed; tests share the host's segments "
               "and run one at a time");
        const int fd = open("/tmp/qv_wm_tests.lock", O_CREAT | O_RDWR, 0666);
        if (fd < 0 || flock(fd, LOCK_EX) != 0) return perror("*** cannot serialise tests"), 2;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

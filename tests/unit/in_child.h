// Runs a piece of a test in a process of its own, for what can happen only once in a process or ends it.
#pragma once

#include <cstdio>
#include <functional>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

// The exit status of the piece, or 128 and the signal that ended it. A failed expectation in it gives 99. What it
// prints goes where this process's output goes.
inline int in_child(const std::function<int()> &piece) {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        const int result = piece();
        fflush(stdout);
        _exit(::testing::Test::HasFailure() ? 99 : result);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

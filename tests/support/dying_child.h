/**
 * @file
 * Calls that end the process: made in a forked child, whose standard output and ending are seen.
 * The report of a bug-check goes to standard output, where death tests of the framework do not
 * look.
 */
#ifndef TEST_DYING_CHILD_H
#define TEST_DYING_CHILD_H

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

/** How a call in a child ended. */
struct ChildEnd {
    int signal = 0;     ///< signal that killed it, 0 when the call returned
    int status = 0;     ///< exit status; 0 when the call returned
    std::string output; ///< standard output
};

/** Makes @p call in a forked child and waits for its end. */
inline ChildEnd endOf(const std::function<void()>& call) {
    ChildEnd end;
    int pipeFds[2];
    if (pipe(pipeFds) != 0) {
        ADD_FAILURE() << "no pipe";
        return end;
    }
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        close(pipeFds[0]);
        close(pipeFds[1]);
        call();
        fflush(stdout);
        _exit(0);
    }
    close(pipeFds[1]);
    char piece[65536];
    ssize_t got = 0;
    while ((got = read(pipeFds[0], piece, sizeof(piece))) > 0 || (got < 0 && errno == EINTR)) {
        end.output.append(piece, static_cast<size_t>(got > 0 ? got : 0));
    }
    close(pipeFds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    end.status = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    return end;
}

/** Expects one bug-check report, with this function and message, in @p output. */
inline void expectReport(const std::string& output, const std::string& function,
                         const std::string& message) {
    std::string box = "********************** Critical Error *********************\n"
                      "| File:      empmain\n"
                      "| Function:  " +
                      function + "\n| Line:      ";
    std::string text = "\n| Message:   " + message +
                       "\n***********************************************************\n";
    size_t at = output.find(box);
    EXPECT_NE(at, std::string::npos) << output.substr(0, 2000);
    EXPECT_NE(output.find(text), std::string::npos) << output.substr(0, 2000);
    EXPECT_EQ(output.find("Critical Error", at + box.size()), std::string::npos);
}

/** Expects that @p call is the bug-check with this function and message. @return its output */
inline std::string expectBugCheck(const std::function<void()>& call, const std::string& function,
                                  const std::string& message) {
    ChildEnd end = endOf(call);
    EXPECT_EQ(end.signal, SIGABRT) << end.output.substr(0, 2000);
    expectReport(end.output, function, message);
    return end.output;
}

#endif

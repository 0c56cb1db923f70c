/**
 * @file
 * Runs a piece of a test in a child process, for what ends the process, and keeps all that it
 * prints. Output goes to files, so a child never waits for its reader.
 */
#ifndef CHILD_PROCESS_H
#define CHILD_PROCESS_H

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/** How a child ended, and what it printed. */
struct ChildResult_t {
    int status; ///< as waitpid() gives it
    std::string out;
    std::string err;

    bool aborted() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }
    bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

inline std::string contentsOf(FILE* file) {
    std::string text;
    char piece[4096];
    rewind(file);
    for (size_t got; (got = fread(piece, 1, sizeof(piece), file)) > 0;) {
        text.append(piece, got);
    }
    return text;
}

/** Runs @p body in a child; when it returns the child exits with 0 without running destructors. */
inline ChildResult_t runInChild(const std::function<void()>& body) {
    FILE* out = tmpfile();
    FILE* err = tmpfile();
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        body();
        fflush(nullptr);
        _exit(0);
    }
    ChildResult_t result = {};
    waitpid(child, &result.status, 0);
    result.out = contentsOf(out);
    result.err = contentsOf(err);
    fclose(out);
    fclose(err);
    return result;
}

#endif

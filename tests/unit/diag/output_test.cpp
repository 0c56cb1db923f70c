#include "diag/output.h"

#include "dying_child.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t BUFFER_SIZE = size_t{128} * 1024;

/** What @p call prints while nothing is held back. */
std::string printed(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

/** The writes of a child whose output is held back. */
std::vector<std::string> writesOf(const std::function<void()>& call) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        empBufferOutput();
        call();
        _exit(0);
    }
    close(ends[1]);
    std::vector<std::string> writes;
    std::string space(2 * BUFFER_SIZE, '\0');
    ssize_t got = 0;
    while ((got = recv(ends[0], space.data(), space.size(), 0)) > 0) {
        writes.push_back(space.substr(0, static_cast<size_t>(got)));
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return writes;
}

std::string joined(const std::vector<std::string>& pieces) {
    std::string all;
    for (const std::string& piece : pieces) {
        all += piece;
    }
    return all;
}

// --- Formats

/** What printf makes of a format that shows one number. */
std::string shownByPrintf(const char* format, U32_t number) {
    char text[128];
    snprintf(text, sizeof(text), format, number);
    return text;
}

TEST(Output, NumbersAreShownAsPrintfShowsThem) {
    for (U32_t number :
         {0U, 1U, 9U, 10U, 99U, 100U, 12345U, 0x7FFFFFFFU, 0x80000000U, 0xABCDEF01U, 0xFFFFFFFFU}) {
        EXPECT_EQ(printed([=] { empPrint("a %d]\n", number); }), shownByPrintf("a %d]\n", number));
        EXPECT_EQ(printed([=] { empPrint("%x", number); }), shownByPrintf("%x", number));
        EXPECT_EQ(printed([=] { empPrint("0x%X\n", number); }), shownByPrintf("0x%X\n", number));
        EXPECT_EQ(printed([=] { empPrint("%08X ", number); }), shownByPrintf("%08X ", number));
        EXPECT_EQ(printed([=] { empPrint("%02X", number); }), shownByPrintf("%02X", number));
    }
}

TEST(Output, SmallTypesAreShownByTheirValue) {
    EXPECT_EQ(printed([] { empPrint("%d %d %X\n", U8_t{255}, S16_t{-2}, U8_t{0xB6}); }),
              "255 -2 B6\n");
}

TEST(Output, TextsAreCutAndFilledAsAsked) {
    char full[64];
    std::fill_n(full, sizeof(full), 'f'); // without a NUL
    EXPECT_EQ(printed([&] { empPrint("[%.64s]", static_cast<const char*>(full)); }),
              "[" + std::string(64, 'f') + "]");
    EXPECT_EQ(printed([] { empPrint("[%.4s] [%.4s]\n", "abc", "abcde"); }), "[abc] [abcd]\n");
    EXPECT_EQ(printed([] { empPrint("%-6s= [%s]\n", "abc", ""); }), "abc   = []\n");
    EXPECT_EQ(printed([] { empPrint("%-2s|\n", "abc"); }), "abc|\n");
}

TEST(Output, TextWithoutArgumentsStandsAsItIs) {
    EXPECT_EQ(printed([] { empPrint("\n[0]\n"); }), "\n[0]\n");
    EXPECT_EQ(printed([] { empPrint(""); }), "");
}

TEST(Output, LongTextStandsWhole) {
    std::string text(300'000, 'x');
    text[200'000] = 'y';
    EXPECT_EQ(printed([&] { empPrint("[%s] %d\n", text.c_str(), 7); }), "[" + text + "] 7\n");
}

// --- The buffer

TEST(Output, NothingIsWrittenBeforeAFlush) {
    EXPECT_EQ(writesOf([] {
                  empPrint("one %d\n", 1);
                  empPrint("two\n");
                  empFlushOutput();
                  empPrint("three\n");
                  empFlushOutput();
                  empFlushOutput();
                  empPrint("never\n");
              }),
              (std::vector<std::string>{"one 1\ntwo\n", "three\n"}));
}

TEST(Output, FullBufferIsWrittenAtTheEndOfALine) {
    std::string text(70, 'x');
    std::vector<std::string> writes = writesOf([&] {
        for (int i = 0; i < 5000; i++) {
            empPrint("%08X %s\n", i, text.c_str());
        }
        empFlushOutput();
    });
    ASSERT_EQ(writes.size(), 4U);
    for (const std::string& piece : writes) {
        EXPECT_EQ(piece.size() % 80, 0U) << "whole lines";
        EXPECT_LE(piece.size(), BUFFER_SIZE);
    }
    std::string all = joined(writes);
    ASSERT_EQ(all.size(), 5000U * 80);
    for (unsigned i = 0; i < 5000; i++) {
        ASSERT_EQ(all.substr(i * 80, 9), shownByPrintf("%08X ", i));
    }
}

TEST(Output, LongLineInAFilledBufferIsNotTorn) {
    std::string half(70'000, 'h');
    std::string most(100'000, 'm');
    EXPECT_EQ(writesOf([&] {
                  empPrint("%s\n", half.c_str());
                  empPrint("%d %s %d\n", 1, most.c_str(), 2);
                  empFlushOutput();
              }),
              (std::vector<std::string>{half + "\n", "1 " + most + " 2\n"}));
}

TEST(Output, OnlyALineLargerThanTheBufferIsTorn) {
    std::string text(300'000, 'x');
    std::vector<std::string> writes = writesOf([&] {
        empPrint("before\n");
        empPrint("[%s]\n", text.c_str());
        empPrint("behind\n");
        empFlushOutput();
    });
    ASSERT_GE(writes.size(), 3U);
    EXPECT_EQ(writes[0], "before\n");
    EXPECT_EQ(joined(writes), "before\n[" + text + "]\nbehind\n");
}

TEST(Output, WhatStdioHoldsIsWrittenBehindIt) {
    EXPECT_EQ(writesOf([] {
                  empPrint("ours\n");
                  printf("the library's");
                  empFlushOutput();
              }),
              (std::vector<std::string>{"ours\n", "the library's"}));
}

TEST(Output, ErrnoIsLeftAsItWas) {
    writesOf([] {
        errno = EDOM;
        empPrint("%s\n", std::string(300'000, 'x').c_str());
        empFlushOutput();
        if (errno != EDOM) {
            abort();
        }
    });
    ChildEnd end = endOf([] {
        close(STDOUT_FILENO);
        empBufferOutput();
        errno = EDOM;
        empPrint("nobody reads it\n");
        empFlushOutput();
        _exit(errno == EDOM ? 7 : 8);
    });
    EXPECT_EQ(end.status, 7);
}

TEST(Output, SlowReaderOfANonBlockingPipeGetsAll) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::string text(BUFFER_SIZE - 100, 'x');
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        fcntl(STDOUT_FILENO, F_SETFL, O_WRONLY | O_NONBLOCK);
        close(ends[0]);
        close(ends[1]);
        empBufferOutput();
        for (int i = 0; i < 4; i++) {
            empPrint("%s\n", text.c_str());
        }
        empFlushOutput();
        _exit(0);
    }
    close(ends[1]);
    std::string all;
    char piece[5000];
    ssize_t got = 0;
    while ((got = read(ends[0], piece, sizeof(piece))) > 0) {
        all.append(piece, static_cast<size_t>(got));
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(all.size(), 4 * (text.size() + 1));
}

TEST(Output, ReaderThatIsGoneStopsNobody) {
    ChildEnd end = endOf([] {
        signal(SIGPIPE, SIG_IGN);
        int ends[2];
        if (pipe(ends) != 0) {
            abort();
        }
        close(ends[0]);
        dup2(ends[1], STDOUT_FILENO);
        empBufferOutput();
        empPrint("%s\n", std::string(300'000, 'x').c_str());
        empFlushOutput();
        _exit(7);
    });
    EXPECT_EQ(end.status, 7);
}

} // namespace

/**
 * Log files that never change: every build must write them byte for byte from the same events at
 * the same time, and must read them all.
 */
#include "model_fixture.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

/** A file as its runs of bytes: tests/golden/README.md tells the form. */
std::string describe(const Bytes& bytes) {
    constexpr size_t ZEROS_BETWEEN_RUNS = 8;
    std::ostringstream text;
    text << "size " << bytes.size() << "\n";
    size_t at = 0;
    while (at < bytes.size()) {
        if (bytes[at] == 0) {
            at++;
            continue;
        }
        size_t end = at; // behind the last byte of the run that is not 0
        for (size_t i = at; i < bytes.size() && i - end < ZEROS_BETWEEN_RUNS; i++) {
            end = bytes[i] != 0 ? i + 1 : end;
        }
        text << at << " ";
        for (; at < end; at++) {
            char digits[3];
            snprintf(digits, sizeof(digits), "%02x", bytes[at]);
            text << digits;
        }
        text << "\n";
    }
    return text.str();
}

Bytes readGolden(const std::string& name, std::string& text) {
    std::ifstream file(std::string(GOLDEN_DIRECTORY) + "/" + name);
    std::stringstream whole;
    whole << file.rdbuf();
    text = whole.str();
    Bytes bytes;
    std::string word;
    std::string digits;
    while (whole >> word >> digits) {
        if (word == "size") {
            bytes.resize(std::stoul(digits), 0);
            continue;
        }
        Bytes run = logimage::hex(digits);
        std::copy(run.begin(), run.end(),
                  bytes.begin() + static_cast<std::ptrdiff_t>(std::stoul(word)));
    }
    return bytes;
}

class Golden : public ModelTest {
  protected:
    Golden() { debugLines(false); }

    /** The file that has just been written is the golden one. */
    void expectGolden(const std::string& name) {
        std::string text;
        readGolden(name, text);
        std::string written = describe(readLog());
        if (written != text) {
            std::string kept = testing::TempDir() + name + ".written";
            std::ofstream(kept) << written;
            ADD_FAILURE() << "the file differs from " << name << "; it is kept as " << kept;
        }
    }
    /** A start on the golden file leaves it as it is. */
    LogState read(const std::string& name) {
        std::string text;
        Bytes bytes = readGolden(name, text);
        EXPECT_FALSE(bytes.empty());
        EXPECT_EQ(scanBoth(Image(bytes)), "");
        EXPECT_EQ(readLog(), bytes);
        return state();
    }
};

TEST_F(Golden, FreshLogIsWritten) {
    ASSERT_EQ(scanBoth(Image()), "");
    expectGolden("fresh.log.txt");
}

TEST_F(Golden, FreshLogIsRead) {
    EXPECT_EQ(read("fresh.log.txt"), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 0, 0, 0}));
}

TEST_F(Golden, EventsAreWritten) {
    ASSERT_EQ(scanBoth(Image()), "");
    ASSERT_EQ(appendBoth(0, 18, 4), "");
    ASSERT_EQ(appendBoth(1, 34, 65535), "");
    ASSERT_EQ(appendBodyBoth(Bytes{'h', 'e', 'l', 'l', 'o'}, 27, 3), "");
    ASSERT_EQ(appendBoth(300, 0, 0), "");
    hooks::state.clock = model.clock = 0xF0000001; // after 2038
    ASSERT_EQ(appendBodyBoth(Bytes(3848, 0xFF), 17, 7), "");
    expectGolden("events.log.txt");
}

TEST_F(Golden, EventsAreRead) {
    EXPECT_EQ(read("events.log.txt"), (LogState{200 + 160 + 161 + 165 + 460 + 4008, END_OF_FILE, 0,
                                                6, WRAP_FALSE, 0, 6, 0, 0, 0}));
}

TEST_F(Golden, ForeignLogIsClearedAndWritten) {
    Image image;
    for (uint32_t id = 70; id < 80; id++) {
        Record record = Record::event(id, 500, 2);
        record.slot = 9;
        image.add(record);
    }
    ASSERT_EQ(scanBoth(image.dummyToEnd()), "");
    ASSERT_EQ(appendBoth(40), "");
    expectGolden("cleared.log.txt");
}

TEST_F(Golden, ClearedLogIsRead) {
    EXPECT_EQ(read("cleared.log.txt"),
              (LogState{400, END_OF_FILE, 0, 2, WRAP_FALSE, 0, 2, 0, 0, 3}));
}

TEST_F(Golden, WrappedLogIsWritten) {
    ASSERT_EQ(scanBoth(Image()), "");
    empControl.empSequenceId = model.nextId = 0x00FFFF00;
    Bytes empty = logimage::zeros(3848);
    while (!model.wrapped) {
        ASSERT_EQ(appendBodyBoth(empty), "");
    }
    ASSERT_EQ(appendBoth(500), "");
    ASSERT_EQ(appendBoth(0), "");
    ASSERT_EQ(appendBoth(3000), "");
    expectGolden("wrapped.log.txt");
}

TEST_F(Golden, WrappedLogIsRead) {
    LogState found = read("wrapped.log.txt");
    EXPECT_EQ(found.wrapOver, WRAP_TRUE);
    EXPECT_EQ(found.write, 4008U + 660 + 160 + 3160);
    EXPECT_EQ(found.start, 200U + 2 * 4008);
    EXPECT_EQ(found.foundGap, 1);
    EXPECT_EQ(found.startId, 0x00FFFF02U);
}

} // namespace

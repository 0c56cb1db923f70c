/**
 * @file
 * A directory of alternate event logs whose order, errors and dispatcher are the test's.
 */
#ifndef ALTERNATE_REPLAY_FIXTURE_H
#define ALTERNATE_REPLAY_FIXTURE_H

#include "ael_file.h"
#include "fixed_time_stamp.h"
#include "startup/ael_file_list.h"
#include "startup/alternate_replay.h"
#include "state/control.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <vector>

/** The name under which the replay speaks. */
#define P "empProcessAlternateEventLogFile(): "

namespace fs = std::filesystem;

/** Messages as the dispatcher saw them: 216 bytes and the data that the body announces. */
extern std::vector<std::string> dispatched;
extern std::function<void()> duringDispatch;

/** The directory's order is the test's: names ascending or descending. */
extern bool descending;
extern std::vector<struct dirent> listed;
extern size_t nextListed;
extern int readdirError;
extern std::string hiddenFrom;  ///< text in the path for which a call fails
extern std::string failingCall; ///< "stat", "open", "read", "calloc", "opendir"
extern int openFlags;
/** Modification times that not every host can give a file, by its name. */
extern std::map<std::string, int64_t> farTimes;

/** A file's size, whatever call is to fail. */
off_t realSizeOf(const std::string& path);

class AlternateReplay : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/aelXXXXXX";
        nvram_ = mkdtemp(name);
        directory_ = nvram_ + "/aelfiles";
        fs::create_directory(directory_);
        memcpy(parameters.nvramDirectory, nvram_.data(), nvram_.size());
        oMpuParams = &parameters;
        empControl.empDebug = 1;
        memset(empControl.empInMsg, 0xEE, sizeof(empControl.empInMsg));
    }
    void TearDown() override { fs::remove_all(nvram_); }

    std::string pathOf(const std::string& name) const { return directory_ + "/" + name; }

    void put(const std::string& name, const std::string& bytes, time_t mtime = 5000) const {
        std::ofstream(pathOf(name), std::ios::binary) << bytes;
        struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, pathOf(name).c_str(), times, 0), 0);
    }
    void putEvent(const std::string& name, const AelFile_t& file, time_t mtime = 5000) const {
        put(name, file.bytes(), mtime);
    }
    std::string replay() {
        testing::internal::CaptureStdout();
        empProcessAlternateEventLogFiles();
        std::string text = testing::internal::GetCapturedStdout();
        EXPECT_EQ(empAelFileNameList, nullptr);
        return text;
    }
    std::vector<std::string> left() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory_)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    /** The event ids in the order of their dispatch. */
    static std::vector<int> ids() {
        std::vector<int> result;
        for (const std::string& message : dispatched) {
            result.push_back(static_cast<U8_t>(message[214]) << 8 |
                             static_cast<U8_t>(message[215]));
        }
        return result;
    }
    std::string head() const {
        return stamped(P "AEL File Path = [" + directory_ + "].\n") + found(".") + found("..");
    }
    std::string found(const std::string& name) const {
        return stamped(P "Found one file [" + name + "] in directory [" + directory_ + "].\n");
    }
    /** The lines of a file whose header was read, up to its place in the list. */
    std::string collected(const std::string& name, int mtime, int tempId) const {
        return found(name) +
               stamped(P "AEL File [" + pathOf(name) + "], st_mtime = [" + std::to_string(mtime) +
                       "].\n" P "Working-on Startup AEL with Temp SeqId [" +
                       std::to_string(tempId) + "].\n");
    }
    std::string first(const std::string& name) const {
        return stamped(P "AEL File [" + pathOf(name) + "], 1st file on list.\n");
    }
    std::string behind(const std::string& name, const std::string& previous) const {
        return stamped(P "Place working-on element [" + pathOf(name) +
                       "] in back of\n" P "Previous element [" + pathOf(previous) + "].\n");
    }
    std::string removed(const std::string& name) const {
        return stamped(P "Remove AEL File [" + pathOf(name) + "].\n");
    }

    MPU_PARAMS_t parameters = {};
    std::string nvram_;
    std::string directory_;
};

#endif

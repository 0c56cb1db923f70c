/**
 * @file
 * A blade's directory with a damaged log, and the bundle that evctl support makes of it.
 */
#ifndef BUNDLE_TEST_SUPPORT_BUNDLE_H
#define BUNDLE_TEST_SUPPORT_BUNDLE_H

#include "../evctl/run.h"
#include "../evlog/log_image.h"

#include "bundle/bundle.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <map>

namespace test {

inline const std::string SECRET = "secret of a customer";

/** Events with names and data, a damaged one among them. */
inline std::string secretLog() {
    LogImage log;
    log.firstEntry();
    for (uint32_t id = 1; id <= 5; id++) {
        log.raw(record({.id = id}, SECRET + std::string(20, '\0')));
    }
    log.dummy();
    log.zerosTo();
    log.damage(640);
    return log.bytes;
}

class Support : public testing::Test {
  protected:
    Support() {
        directory_.makeDirectory("nvram");
        directory_.makeDirectory("nvram/aelfiles");
        write("nvram/kelta_eventlog", secretLog());
        write("nvram/kelta_eventlog.debug", secretLog());
        write("nvram/kelta_eventlog.fatal-20261122T080000Z", secretLog());
        write("nvram/aelfiles/kelta_alteventlog1.abcdef", record({.time = 1'164'117'700}, SECRET));
    }
    void write(const std::string& name, const std::string& bytes) {
        support::writeFile(directory_.file(name), bytes);
    }
    Said pack(const std::vector<std::string>& more = {}) {
        return pack({"--nvram", directory_.file("nvram")}, more);
    }
    Said pack(const std::vector<std::string>& where, const std::vector<std::string>& more) {
        std::vector<std::string> arguments = {"support", "-o", bundlePath()};
        arguments.insert(arguments.end(), where.begin(), where.end());
        arguments.insert(arguments.end(), more.begin(), more.end());
        Said said = run(arguments);
        std::string packed = support::readFile(bundlePath());
        std::vector<std::string> problems;
        members_.clear();
        for (const bundle::Member& member : bundle::unpack(
                 {reinterpret_cast<const U8_t*>(packed.data()), packed.size()}, &problems)) {
            members_[member.name] = std::string(member.bytes.begin(), member.bytes.end());
        }
        EXPECT_TRUE(problems.empty());
        return said;
    }
    std::string bundlePath() const { return directory_.file("help.tar.gz"); }

    support::TempDirectory directory_;
    std::map<std::string, std::string> members_;
};

} // namespace test

#endif

/**
 * @file
 * Both ends of a gate between the test, which plays the blade, and a real archiver.
 */
#ifndef EVGATE_TEST_FIXTURE_H
#define EVGATE_TEST_FIXTURE_H

#include "blade_link.h"
#include "certificates.h"
#include "program.h"
#include "sqlite_store.h"

#include <gtest/gtest.h>

#include <csignal>

namespace support {

inline constexpr Claim NOTHING_YET{0, 1};

class GateTest : public ArchiverProcessTest {
  protected:
    GateTest() { writeMap("DNS:site.example ENC-A\n"); }

    void writeMap(const std::string& text) const { writeFile(directory_.file("map"), text); }

    std::unique_ptr<Process> startEnd(const std::string& end, U16_t listen, U16_t to,
                                      const Identity& identity, const std::string& ca,
                                      const std::vector<std::string>& more) {
        std::vector<std::string> all = {end, "--listen", "127.0.0.1:" + std::to_string(listen),
                                        "--to", "127.0.0.1:" + std::to_string(to)};
        for (const auto& words : {identity.options(ca), more}) {
            all.insert(all.end(), words.begin(), words.end());
        }
        auto process = std::make_unique<Process>(commandOf("evgate", all),
                                                 directory_.file(end + std::to_string(++starts_)));
        process->waitForOutput("listening on 127.0.0.1:" + std::to_string(listen));
        return process;
    }

    void startArchiveEnd(const std::vector<std::string>& more = {}) {
        std::vector<std::string> all = {"--map", directory_.file("map")};
        all.insert(all.end(), more.begin(), more.end());
        archiveEnd_ = startEnd("archive", archivePort_, port_, archive_, authority_.path(), all);
    }

    void startSiteEnd(const std::vector<std::string>& more = {}) {
        std::vector<std::string> all = {"--name", "archive.example"};
        all.insert(all.end(), more.begin(), more.end());
        siteEnd_ = startEnd("site", sitePort_, outerPort_, site_, authority_.path(), all);
    }

    /** Archiver and both ends. */
    void startAll(const std::vector<std::string>& site = {}) {
        start();
        startArchiveEnd();
        startSiteEnd(site);
    }

    void stopAll() {
        for (Process* end : {siteEnd_.get(), archiveEnd_.get()}) {
            end->signal(SIGTERM);
            EXPECT_EQ(end->wait(), exitedWith(0));
            EXPECT_EQ(end->errorOutput(), "");
        }
        archiver_->signal(SIGTERM);
        EXPECT_EQ(archiver_->wait(), exitedWith(0));
    }

    /** The events that the archive has of a log, by id. */
    std::map<U32_t, Bytes> archived(const LogName& log = {}) const {
        const auto archive = evarchive::openArchiveForReading(database_);
        std::map<U32_t, Bytes> found;
        const auto series =
            archive->findSeries({{log.enclosure, log.blade, log.slot}, log.instance});
        if (const auto newest = series ? archive->newestGeneration(*series) : std::nullopt) {
            archive->forEachEvent(newest->number, [&](const evarchive::StoredEvent& event) {
                found[event.sequenceId] = event.image;
            });
        }
        return found;
    }

    /** A blade that connects is closed, and nothing of it is in the archive. */
    void expectRefused() {
        BladeLink link(sitePort_);
        link.send(statusOf(event(1)));
        EXPECT_TRUE(link.isClosed());
        EXPECT_TRUE(archived().empty());
    }

    Authority authority_{directory_.file("ca")};
    Identity archive_ = authority_.issue("archive");
    Identity site_ = authority_.issue("site");
    U16_t archivePort_ = freePort();
    U16_t sitePort_ = freePort();
    U16_t outerPort_ = archivePort_; ///< where the site's end connects
    std::unique_ptr<Process> archiveEnd_;
    std::unique_ptr<Process> siteEnd_;
};

} // namespace support

#endif

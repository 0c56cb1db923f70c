/**
 * @file
 * What goes into a support bundle, collected file by file.
 */
#ifndef EVCTL_SUPPORT_FILES_H
#define EVCTL_SUPPORT_FILES_H

#include "bundle/tar.h"
#include "evctl/support/redact.h"
#include "evctl/views/event_view.h"
#include "sources/alternate_files.h"

#include <string>
#include <vector>

namespace evctl {

/** Of outputs the end is taken: what was said last. */
constexpr size_t SUPPORT_TAIL = 262'144;
/** Alternate event files, half of them the first ones and half the newest. */
constexpr size_t SUPPORT_FILES_MAX = 1000;

/** Collects; nothing is ever changed. What cannot be had is noted, and the rest is taken. */
class SupportFiles {
  public:
    explicit SupportFiles(bool redact) : redact_(redact) {}

    /** The log, its debugging copy, those that were set aside, the alternate events of a directory,
     * and what is to be said of the log: prediction, damage, bug-checks.
     * @param identity of the blade, to tell another one's log; or nullptr: not known */
    void addLogs(const std::string& directory, const EvlogIdentity_t* identity);

    /** The end of an output. Left out when names and data shall be. */
    void addTail(const std::string& path);

    /** The same of an output that nobody asked for: when it is there, and no link. */
    void addKnownTail(const std::string& path);

    /** @param json without its texts when names and data shall be left out */
    void addObject(const std::string& name, Json json);

    /** What is known of this program and its host; nothing of it is a name. */
    void addVersions(const Json& versions) { addText("versions.json", jsonLine(versions)); }

    /** Something is missing that should be there. @param why may hold names, so it is not told
     * where these shall be left out */
    void addProblem(const std::string& what, const std::string& why);

    /** All members, with what is missing and the checksums at the end. */
    std::vector<bundle::Member> finish();

    /** All of them, with names: for who makes the bundle. */
    const std::vector<std::string>& problems() const { return problems_; }

  private:
    void add(const std::string& name, std::vector<U8_t> bytes);
    void addText(const std::string& name, const std::string& text);
    void addLog(const std::string& path, const std::string& name, bool expected);
    void addReports(const EvlogImage_t& original);
    void addCrashes();
    void addOutput(const std::string& path, std::vector<U8_t> bytes);
    void addAlternates(const std::string& directory);
    void leaveOutMiddle(std::vector<sources::AelFile>& files);
    std::string nameOfAside(const std::string& path, size_t number) const;

    bool redact_;
    const EvlogIdentity_t* identity_ = nullptr; ///< while logs are added
    Redaction redaction_;
    std::vector<bundle::Member> members_;
    std::vector<std::string> problems_;
    std::string missing_; ///< the same for the bundle
};

} // namespace evctl

#endif

/**
 * @file
 * A blade around a real event manager: the parameter block, the directories, and the message
 * switch, which the test plays.
 */
#ifndef EMP_BLADE_H
#define EMP_BLADE_H

#include "ipc_key.h"
#include "mmsg_client.h"
#include "mpu_gbl.h"
#include "process.h"
#include "program.h"
#include "temp_directory.h"

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

/** What a bug-check says when the switch's socket fails or ends. */
inline constexpr char READ_FAILS[] = "Linux recv function fails, MSG_PEEK readSize = [-1] is wrong";

/** Enclosure "CHASSIS-7", blade "BLADE-42", slot 3; sockets in m, non-volatile data in n. */
class Blade {
  public:
    Blade();

    /** The shared block, writable for the test. */
    MPU_PARAMS_t& params() { return *params_; }
    const support::IpcKey& key() const { return key_; }

    /** Path of a file of the test itself. */
    std::string file(const std::string& name) const { return directory_.file(name); }
    std::string mmsgPath() const { return directory_.file("m/eventlog"); }
    std::string logPath() const { return directory_.file("n/kelta_eventlog"); }
    std::string log() const { return support::readFile(logPath()); }

    /** @p count bytes of the log file. */
    support::Bytes logged(size_t offset, size_t count) const;

    /** Number of alternate event log files. */
    size_t alternateFiles() const;

    /** `emp <key>`. */
    std::vector<std::string> command() const { return support::commandOf("emp", {key_.text()}); }

    /** command() in a shell that first runs @p preparation. */
    std::vector<std::string> commandAfter(const std::string& preparation) const;

    /** Waits for the event manager's connection; somebody must have called listen(). */
    support::MmsgClient accept() { return listener_->accept(); }
    void listen();

  private:
    support::TempDirectory directory_;
    support::IpcKey key_;
    MPU_PARAMS_t* params_;
    std::unique_ptr<support::MmsgListener> listener_;
};

/** An event manager that has connected. Its standard error must stay empty. */
class RunningEmp {
  public:
    explicit RunningEmp(Blade& blade) : RunningEmp(blade, blade.command()) {}
    RunningEmp(Blade& blade, const std::vector<std::string>& command);
    ~RunningEmp();

    /** Reads up to the start-up notice. @return the messages in front of it */
    std::vector<support::Bytes> start();

    /** start() and waiting for the loop; nothing may come before the notice. */
    void startQuietly();

    /** Sends an event and reads its copy. @return the copy's sequence id */
    U32_t log(U8_t requestor, const support::Bytes& data);

    /** Kills it as kill -9 does, and waits for its end. */
    void kill();

    /** Expects the bug-check with this function and message as its end. @return its output */
    std::string expectBugCheck(const std::string& function, const std::string& message);

    support::Process process;
    support::MmsgClient msm;
};

/** An event message to the event manager: 152 bytes of header that the requestor leaves zero but
 * for type 2, category 4, version 7 and id 0x1234, then the data. */
support::Bytes eventMessage(U8_t requestor, const support::Bytes& data);

/** A header with EMP's recipient bit and protocol, nothing behind it. */
support::Bytes bareMessage(U32_t type, U8_t requestor = 18);

/** All pieces one behind the other. */
support::Bytes joined(std::initializer_list<support::Bytes> pieces);

/** A text in a field of 64 bytes. */
support::Bytes textField(const std::string& text);

/** The whole number at an offset, most significant byte first. */
U32_t number32(const support::Bytes& bytes, size_t offset);

/** What a program has written to standard error, without the line of an emulator that reports the
 * program's end by abort(). */
std::string errorsOf(const support::Process& process);

/** Field @p number of /proc/<pid>/stat, counted as its manual does. */
std::string statField(pid_t pid, int number);

#endif

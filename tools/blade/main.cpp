#include "blade.h"
#include "common/cli.h"
#include "common/descriptors.h"
#include "common/names.h"
#include "common/say.h"
#include "directories.h"

#include <exception>
#include <iterator>
#include <sstream>

using namespace blade;

namespace {

constexpr char DESCRIPTION[] =
    "Brings a storage blade's management processes up on one machine.\n\n"
    "Creates the shared parameter block from the text file CONFIG, makes the directories that it\n"
    "names where they are missing, starts the message switch (msm) and the event\n"
    "manager (emp), plays the Startup process (endpoint 18) and waits for the event manager's\n"
    "notice that it is initialised. Then the line \"blade: up: ...\" appears, and the blade stays up\n"
    "until SIGINT, SIGTERM or SIGHUP: emp is stopped, then msm, and the block is removed. A second\n"
    "signal kills what is left at once. After SIGUSR1 the logs, which somebody has renamed, go on\n"
    "in new files.\n\n"
    "When a process dies, blade says how, stops the rest and exits with 1; see --restart and --keep\n"
    "for the event manager. The children die with blade.\n\n"
    "The directories are made with mode 0700. One that is a link, belongs to somebody else or is\n"
    "writable by others is refused. Where CONFIG names none they are below $XDG_RUNTIME_DIR/blade,\n"
    "for root below /run/blade.";

constexpr char FOOTER[] =
    "CONFIG holds lines NAME=VALUE and bare flag names, # begins a comment line. Version=15 is\n"
    "needed. MmsgDirectory, NvramDirectory and LogDirectory name the directories, all but the last\n"
    "or none. Slot, SerialNumber and ChassisSerialNumber are the blade's identity in its events.\n\n"
    "Examples:\n"
    "  blade demo/blade.conf\n"
    "  blade demo/blade.conf --base ~/bl --slot 0 --other 1 --set SerialNumber=BLADE-0 &\n"
    "  blade demo/blade.conf --base ~/bl --slot 1 --other 0 --set SerialNumber=BLADE-1 &\n"
    "  blade demo/blade.conf --no-emp --key 4711 &  then by hand: emp 4711\n"
    "  build/dev/blade demo/blade.conf --emp build/powerpc/emp --msm build/powerpc/msm \\\n"
    "      --runner \"qemu-ppc -L /usr/powerpc-linux-gnu\"";

/** Options as they stand on the command line, before they are understood. */
struct Words {
    std::string key;
    std::string runner;
    std::optional<U32_t> slot;
    std::string restart = "never";
    std::string archiver;
};

std::string checkKey(const std::string& text) {
    std::optional<U32_t> key = tools::parseNumber(text, 0x7FFFFFFF);
    return key && *key >= static_cast<U32_t>(KEY_MIN)
               ? ""
               : "a key is a number from 100 to 2147483647, decimal or hexadecimal with 0x";
}

void declareParameters(CLI::App& app, BladeOptions& options, Words& words) {
    app.add_option("config", options.source.file, "Text parameter file of the blade")
        ->required()
        ->type_name("CONFIG");
    app.add_option(
           "--set", options.source.extras,
           "A line that holds against CONFIG, such as SerialNumber=BLADE-1; may be repeated")
        ->type_name("NAME=VALUE")
        ->expected(1)
        ->take_all();
    app.add_option("--slot", words.slot, "Slot of the blade, instead of CONFIG's")
        ->check(CLI::Range(0, 255))
        ->type_name("SLOT");
    auto* base = app.add_option("--base", options.source.base,
                                "Put all directories below DIR: DIR/slot<SLOT>/mmsg, .../nvram and "
                                ".../log, instead of where CONFIG says")
                     ->check(tools::notEmpty())
                     ->type_name("DIR");
    app.add_option("--other", options.other,
                   "Link the switch to that of the blade in slot SLOT under the same --base; both "
                   "blades need the option, and may come up in any order")
        ->check(CLI::Range(0, 255))
        ->needs(base)
        ->type_name("SLOT");
    app.add_option(
           "--key", words.key,
           "System V key of the parameter block, from 100 on (default 0x0b1ade00, plus what --slot says)")
        ->check(checkKey)
        ->type_name("KEY");
}

void declareProcesses(CLI::App& app, BladeOptions& options, Words& words) {
    app.add_option("--emp", options.emp, "The event manager (default: emp beside this program)")
        ->check(tools::notEmpty())
        ->type_name("PATH");
    app.add_option("--msm", options.msm, "The message switch (default: msm beside this program)")
        ->check(tools::notEmpty())
        ->type_name("PATH");
    app.add_option("--runner", words.runner,
                   "Launcher that is put in front of both programs, its words divided by blanks")
        ->type_name("COMMAND");
    app.add_option("--emp-log", options.empLog,
                   "File to which emp's standard output is added, - for this program's own "
                   "(default: emp.log in LogDirectory, or in MmsgDirectory where there is none)")
        ->check(tools::notEmpty())
        ->type_name("FILE");
    app.add_option("--msm-log", options.msmLog, "The same for msm (default: msm.log there)")
        ->check(tools::notEmpty())
        ->type_name("FILE");
    app.add_option("--log-size", options.logSize,
                   "Size at which either log is put aside as FILE.1 and begun anew, from 4 KiB on")
        ->type_name("SIZE")
        ->default_str("64 MB")
        ->transform(CLI::AsSizeValue(false));
    app.add_option("--log-keep", options.logKeep, "Files of each log to keep in all")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000))
        ->type_name("N");
    app.add_option("--group", options.source.group,
                   "Group whose members may connect to the switch, too")
        ->type_name("NAME");
    app.add_flag("--trace", options.trace, "Have msm print the header of every message");
    app.add_option("--timeout", options.timeout, "Seconds that emp may take to initialise")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600))
        ->type_name("SECONDS");
    app.add_option(
           "--restart", words.restart,
           "Whether emp is started again when it fails after it was up: never, or on-failure "
           "(not after SIGTERM, SIGINT or SIGHUP)")
        ->capture_default_str()
        ->check(CLI::IsMember({"never", "on-failure"}))
        ->type_name("WHEN");
    app.add_option("--restart-limit", options.restartLimit,
                   "Starts in a row, of which each lasted less than 60 seconds, after which there "
                   "is no further one")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000))
        ->type_name("N");
    app.add_option("--archiver", words.archiver,
                   "The archiver that emp shall use, told to it after each of its starts")
        ->type_name("HOST:PORT");
    auto* noEmp = app.add_flag("--no-emp", options.noEmp,
                               "Start everything but emp, which is then started by hand");
    app.add_flag("--keep", options.keep,
                 "Keep the blade up when emp dies, so that it can be started again by hand; the "
                 "exit status is 1 then")
        ->excludes(noEmp);
}

void understand(BladeOptions& options, const Words& words) {
    if (!words.key.empty()) {
        options.key = static_cast<int>(*tools::parseNumber(words.key, 0x7FFFFFFF));
    } else {
        options.key = KEY_DEFAULT + static_cast<int>(words.slot.value_or(0));
    }
    if (words.slot) {
        options.source.extras.push_back("Slot=" + std::to_string(*words.slot));
    }
    if (options.other) {
        options.source.extras.emplace_back("OtherBladePresent");
    }
    constexpr U64_t LOG_SIZE_MIN = 4096;
    if (options.logSize < LOG_SIZE_MIN) {
        throw BladeError("--log-size: " + std::to_string(options.logSize) +
                         " bytes are less than 4 KiB");
    }
    options.restart = words.restart == "on-failure";
    if (!words.archiver.empty()) {
        options.archiver = evctl::parseArchiver(words.archiver);
    }
    std::istringstream runner(words.runner);
    options.runner.assign(std::istream_iterator<std::string>(runner), {});
}

} // namespace

int main(int argc, char** argv) {
    tools::guardStandardDescriptors();
    tools::surviveReaders();
    try {
        BladeOptions options;
        Words words;
        CLI::App app(DESCRIPTION, "blade");
        declareParameters(app, options, words);
        declareProcesses(app, options, words);
        tools::setUpCommandLine(app, FOOTER);
        if (std::optional<int> status = tools::parseCommandLine(app, argc, argv)) {
            return *status;
        }
        understand(options, words);
        asio::io_context loop(1);
        Blade blade(loop, options);
        return blade.run();
    } catch (const std::exception& error) {
        blade::takeBackMade();
        return tools::sayCouldNot("blade", error.what());
    }
}

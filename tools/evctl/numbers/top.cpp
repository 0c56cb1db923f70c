/** evctl top: a blade's log as it fills, live. */
#include "common/text.h"
#include "configuration.h"
#include "evctl/archives/archive_commands.h"
#include "evctl/commands.h"
#include "evctl/numbers/live_screen.h"
#include "evctl/numbers/top_view.h"
#include "evctl/views/event_output.h"
#include "evctl/wire/request.h"

#include <ctime>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace evctl {
namespace {

constexpr char TOP_EXAMPLES[] =
    "The log is read as it lies in its file, and nothing is sent but a question for the state of\n"
    "the link. On a terminal q ends it; elsewhere there is one picture below the other.\n"
    "Examples:\n"
    "  evctl top --key 0x1234\n"
    "  evctl top --key 0x1234 --db events.db --interval 10\n"
    "  evctl top -n 1 /nvram/kelta_eventlog";

constexpr double TOP_ANSWER_WITHIN = 1; // seconds; keys wait meanwhile

struct TopOptions {
    std::string path;
    RequestOptions request;
    std::string archive;
    double interval = 2; // seconds
    U64_t count = 0;     // 0: without end
    bool batch = false;
};

class Top {
  public:
    explicit Top(const TopOptions& options);

    /** Throws when there is no log. */
    std::vector<std::string> lines();

    /** lines(), or the line that says why there are none: a log may be away for a moment. */
    std::vector<std::string> linesOrProblem();

  private:
    void askStatus(TopView& view);
    void askArchive(const LogContent& content, TopView& view) const;

    const TopOptions& options_;
    std::string path_;
    bool asks_;
    std::optional<Requester> requester_;
};

Top::Top(const TopOptions& options)
    : options_(options), path_(options.path),
      asks_(path_.empty() || options.request.where.block.given() ||
            !options.request.where.directory.empty()) {
    if (path_.empty()) {
        const MPU_PARAMS_t& params = attachParams(options.request.where.block);
        path_ = tools::fieldText(params.nvramDirectory, sizeof(params.nvramDirectory)) +
                EMP_LOG_FILE_NAME;
    }
}

void Top::askStatus(TopView& view) {
    if (!asks_) {
        view.whyNoStatus = "--key or --dir says whom to ask";
        return;
    }
    try {
        if (!requester_) {
            requester_.emplace(options_.request);
        }
        Bytes reply = requester_->ask(
            makeMessage(EMP_E_MSGS_GET_EVENT_MANAGER_STATUS, options_.request.endpoint, 0),
            sizeof(EmpGetEvManagerStatusMsg_t));
        view.status =
            *reinterpret_cast<const EmpGetEvManagerStatusMsg_t*>(reply.data() + MMCH_SIZE);
    } catch (const SessionError& problem) {
        view.whyNoStatus = problem.what();
        requester_.reset(); // it may be back for the next picture
    }
}

void Top::askArchive(const LogContent& content, TopView& view) const {
    const EmpEvRecord_t* newest = newestOf(content);
    if (options_.archive.empty() || newest == nullptr) {
        view.whyNoneKept = "--db names the archive";
        return;
    }
    try {
        view.kept = newestArchived(options_.archive, *newest);
        view.whyNoneKept = "the archive does not have this log";
    } catch (const std::runtime_error& problem) {
        view.whyNoneKept = problem.what();
    }
}

std::vector<std::string> Top::lines() {
    EvlogImage_t image = loadLog(path_);
    LogContent content = readLog(image);
    TopView view;
    view.place = tools::escapedText(path_);
    view.now = static_cast<U32_t>(time(nullptr));
    askStatus(view);
    askArchive(content, view);
    return topLines(content, view);
}

std::vector<std::string> Top::linesOrProblem() {
    try {
        return lines();
    } catch (const std::runtime_error& problem) {
        return {tools::escapedText(problem.what())};
    }
}

void printBatch(const std::vector<std::string>& lines, bool first) {
    std::cout << (first ? "" : "\n");
    for (const std::string& line : lines) {
        std::cout << line << "\n";
    }
    std::cout.flush();
}

int runTop(const TopOptions& given) {
    TopOptions options = given;
    if (options.path.empty()) {
        requireBlock(options.request.where, "top", "without LOG needs --key: it names the log");
    }
    Top top(options);
    std::vector<std::string> lines = top.lines(); // or says what is wrong on the usual screen
    auto interval = std::chrono::milliseconds(static_cast<S64_t>(options.interval * 1000));
    std::optional<LiveScreen> screen;
    if (!options.batch && !isDumbTerminal() && isatty(STDOUT_FILENO) != 0) {
        screen.emplace();
    }
    for (U64_t shown = 1;; shown++) {
        if (screen) {
            screen->show(lines);
        } else {
            printBatch(lines, shown == 1);
        }
        if (!std::cout || shown == options.count) {
            return tools::EXIT_DONE;
        }
        if (screen && !screen->wait(interval)) {
            return tools::EXIT_DONE;
        }
        if (!screen) {
            std::this_thread::sleep_for(interval);
        }
        lines = top.linesOrProblem();
    }
}

} // namespace

void addTopCommand(CLI::App& parent, Chosen& chosen) {
    auto options = std::make_shared<TopOptions>();
    options->request.timeout = TOP_ANSWER_WITHIN;
    CLI::App& command =
        addCommand(parent, "top", "Show live which sources log, how full the log is, and the link.",
                   TOP_EXAMPLES);
    command.add_option("LOG", options->path, "The log file; without it the blade's");
    addSwitchOptions(command, options->request.where);
    command
        .add_option("--db", options->archive,
                    "The archive that the blade forwards to: shows how far it is behind")
        ->type_name("PLACE");
    command.add_option("--interval", options->interval, "Time between pictures (default 2)")
        ->type_name("SECONDS")
        ->check(tools::decimalNumber(0.1, 86'400));
    command.add_option("-n,--count", options->count, "End after so many pictures")
        ->type_name("NUMBER")
        ->check(tools::wholeNumber(1));
    command.add_flag("--batch", options->batch, "One picture below the other, also on a terminal");
    onChosen(command, chosen, options, runTop);
}

} // namespace evctl

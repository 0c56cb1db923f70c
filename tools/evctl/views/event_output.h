/**
 * @file
 * How the readers print events: the options that say so, and the one who prints.
 */
#ifndef EVCTL_EVENT_OUTPUT_H
#define EVCTL_EVENT_OUTPUT_H

#include "common/cli_fwd.h"
#include "evctl/views/event_view.h"

#include <optional>

namespace evctl {

enum class Form {
    SHORT,  ///< a line
    FULL,   ///< a line a field
    JSON,   ///< an object a line
    CSV,    ///< comma-separated values
    SYSLOG, ///< a syslog message a line
    HEX,    ///< a line, and a dump of header and data
};

enum class Colour { AUTO, ALWAYS, NEVER };

struct OutputOptions {
    Form form = Form::SHORT;
    bool data = false;
    bool advice = false;
    Zone zone = Zone::UTC;
    Colour colour = Colour::AUTO;
};

/** Adds -o, --json, --data, -x, --local and --color. */
void addOutputOptions(CLI::App& command, OutputOptions& options);

/** Whether the terminal, by TERM, takes nothing but text. */
bool isDumbTerminal();

/** Columns of the terminal that standard output is; nothing: it is none, lines are not cut. */
std::optional<size_t> outputColumns();

/** Where it is printed. */
struct OutputPlace {
    bool several = false; ///< events of several logs: shows which one each is of
    bool paged = false;   ///< a pager takes it, which shows long lines as it likes
    bool colours = true;  ///< where it is shown colours are, not their codes
};

/** Prints events on standard output. */
class EventPrinter {
  public:
    /** The options must outlive it. */
    explicit EventPrinter(const OutputOptions& options, const OutputPlace& place = {});

    void print(const sources::Event& event);

    /** An event that just came, at once. */
    void printNow(const EventView& event);

    /** Something that is no event, in the same form: an object, or a line, on standard error where
     * lines can be nothing but events. */
    void printNote(const Json& object, const std::string& line);

    /** A line about an event: cut, in the colour of its type, and below it what was asked for. */
    std::string styled(std::string line, const EventView& event) const;

    /** How far has been read, likewise. */
    void printCursor(const std::string& cursor);

  private:
    std::string textOf(const sources::Event& event) const;
    std::string lineOf(const sources::Event& event) const;
    std::string coloured(std::string line, const EventView& event) const;
    std::string jsonOf(const sources::Event& event) const;
    std::string fullOf(const sources::Event& event) const;
    const std::string& nameOf(const sources::Event& event) const;

    const OutputOptions& options_;
    OutputPlace place_;
    std::optional<size_t> columns_; // of the terminal
    Width width_;                   // of lines
    bool colour_;
    bool any_ = false; // has printed something
};

} // namespace evctl

#endif

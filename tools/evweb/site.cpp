#include "site.h"

#include "answers.h"
#include "common/time_text.h"
#include "evctl/views/event_forms.h"

#include <algorithm>
#include <ctime>

namespace evweb {
namespace {

constexpr std::chrono::seconds QUESTION_WAIT{2};
constexpr char TOO_MUCH[] = "too much is asked at a time";
constexpr U32_t EXPORT_PAGE = 500;
constexpr char API[] = "/api/v1/";

// No other origin has a part in these pages, neither as a source nor as a frame around them.
constexpr std::pair<const char*, const char*> HEADERS[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
     "connect-src 'self'; form-action 'self'; base-uri 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Permissions-Policy", "camera=(), geolocation=(), microphone=()"},
};

// The shell of all pages; what is shown in it its script tells from the address.
constexpr std::array PAGES = {"/", "/search", "/timeline", "/blade", "/event", "/live"};

/** One of so many places, for as long as it is there. */
template <std::ptrdiff_t MOST>
class Turn {
  public:
    /** Throws Refusal, with @p otherwise, when none is free in time. */
    Turn(std::counting_semaphore<MOST>& places, std::chrono::seconds wait, const char* otherwise)
        : places_(places) {
        if (!places_.try_acquire_for(wait)) {
            throw Refusal(503, otherwise);
        }
    }
    ~Turn() { places_.release(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

  private:
    std::counting_semaphore<MOST>& places_;
};

std::string textOf(const Json& json) {
    return evctl::jsonLine(json);
}

Response refusal(int status, const std::string& text) {
    Response response{.status = status, .body = textOf({{"status", status}, {"error", text}})};
    if (status == 405) {
        response.headers.emplace_back("Allow", "GET, HEAD");
    } else if (status == 401) {
        response.headers.emplace_back("WWW-Authenticate",
                                      "Basic realm=\"event archive\", charset=\"UTF-8\"");
    } else if (status == 503) {
        response.headers.emplace_back("Retry-After", "2");
    }
    return response;
}

const PageFile* fileOf(const std::string& path) {
    const std::string wanted = std::ranges::find(PAGES, path) != PAGES.end() ? "/index.html" : path;
    const auto found = std::ranges::find(pageFiles(), wanted, &PageFile::path);
    return found == pageFiles().end() ? nullptr : &*found;
}

S64_t requiredNumber(const Parameters& parameters, const std::string& name, S64_t least,
                     S64_t most) {
    const std::optional<S64_t> number = numberOf(parameters, name, least, most);
    if (!number) {
        throw Refusal(400, name + ": is missing");
    }
    return *number;
}

S64_t requiredLog(const Parameters& parameters) {
    return requiredNumber(parameters, "log", INT64_MIN, INT64_MAX);
}

std::string logs(View& view, const Parameters& parameters) {
    requireKnown(parameters, {"find", "behind", "limit", "order"});
    LogSearch search{.find = wordsOf(parameters, "find")};
    search.behind = numberOf(parameters, "behind", INT64_MIN, INT64_MAX);
    search.limit =
        static_cast<U32_t>(numberOf(parameters, "limit", 1, MOST_ROWS).value_or(search.limit));
    const std::string order = valueOf(parameters, "order");
    if (!order.empty() && order != "name" && order != "worst") {
        throw Refusal(400, "order: name or worst");
    }
    search.isWorstFirst = order == "worst";
    if (search.isWorstFirst && search.behind) {
        throw Refusal(400, "behind: the worst are listed from the first on");
    }
    return textOf(overviewJson(view.logs(search)));
}

std::string around(View& view, const Parameters& parameters) {
    requireKnown(parameters, {"log", "generation", "id", "reach"});
    const auto generation = numberOf(parameters, "generation", 1, UINT32_MAX);
    const auto reach = numberOf(parameters, "reach", 1, MOST_ROWS / 2).value_or(25);
    return textOf(pageJson(
        view.around(requiredLog(parameters),
                    generation ? std::optional(static_cast<U32_t>(*generation)) : std::nullopt,
                    static_cast<U32_t>(requiredNumber(parameters, "id", 0, UINT32_MAX)),
                    static_cast<U32_t>(reach))));
}

std::string event(View& view, const Parameters& parameters) {
    requireKnown(parameters, {"log", "generation", "id"});
    const auto found =
        view.event(requiredLog(parameters),
                   static_cast<U32_t>(requiredNumber(parameters, "generation", 1, UINT32_MAX)),
                   static_cast<U32_t>(requiredNumber(parameters, "id", 0, UINT32_MAX)));
    if (!found || !isWhole(*found)) {
        throw Refusal(404, "the archive has no such event");
    }
    return textOf(wholeEventJson(*found));
}

std::string tail(View& view, const Parameters& parameters) {
    const Search search = searchOf(parameters, {"after"});
    return textOf(tailJson(view.tail(search, positionOf(parameters, "after"))));
}

std::string log(View& view, const Parameters& parameters) {
    requireKnown(parameters, {"log"});
    return textOf(logJson(view.log(requiredLog(parameters))));
}

std::string status(View& view, const Parameters& parameters) {
    requireKnown(parameters, {});
    return textOf(statusJson(view.status()));
}

std::string names(View& /*view*/, const Parameters& parameters) {
    requireKnown(parameters, {});
    return textOf(namesJson());
}

std::string events(View& view, const Parameters& parameters) {
    const Search search = searchOf(parameters);
    Json json = pageJson(view.search(search));
    // What "today" or "-2h" was: so a link to this can say it for good.
    json["since"] = timeOrNull(search.filter.since);
    json["until"] = timeOrNull(search.filter.until);
    json["now"] = timeOrNull(std::optional(static_cast<U32_t>(time(nullptr))));
    return textOf(json);
}

using Answer = std::string (*)(View&, const Parameters&);
const std::map<std::string, Answer> ANSWERS = {
    {"around", around}, {"event", event}, {"events", events}, {"log", log},
    {"logs", logs},     {"names", names}, {"status", status}, {"tail", tail},
};

/** A search, page after page, until it or its bounds are through. Each page takes a turn of its
 * own, so that others are answered between two. */
class Export {
  public:
    /** Throws Refusal when others are under way. */
    Export(View& view, Search search, const SiteSettings& settings, bool isCsv,
           std::counting_semaphore<MOST_QUESTIONS>& questions,
           std::counting_semaphore<MOST_EXPORTS>& exports)
        : view_(view), search_(std::move(search)), left_(settings.exportRows),
          deadline_(Clock::now() + settings.exportTime), isCsv_(isCsv), questions_(questions),
          slot_(exports, std::chrono::seconds(0), "others export already; try again later") {}

    /** What the next page gives, which may be nothing. */
    std::string step();

    /** The next lines; empty at the end. */
    std::string piece();

    std::string first() const { return isCsv_ ? evctl::csvHeader() : ""; }

  private:
    std::string lineOf(const FoundEvent& event) const;
    std::string note(const std::string& text) const;

    View& view_;
    Search search_;
    U64_t left_;
    Clock::time_point deadline_;
    bool isCsv_;
    bool isThrough_ = false;
    std::counting_semaphore<MOST_QUESTIONS>& questions_;
    Turn<MOST_EXPORTS> slot_;
};

std::string Export::lineOf(const FoundEvent& event) const {
    const std::string from = std::to_string(event.log) + "/" + std::to_string(event.generation);
    return isCsv_ ? evctl::csvLine(sources::eventOf(event.event.image), from, shownField)
                  : evctl::jsonLine(eventJson(event));
}

std::string Export::note(const std::string& text) const {
    return isCsv_ ? "# " + text + "\n" : evctl::jsonLine({{"note", text}});
}

std::string Export::piece() {
    std::string lines;
    while (lines.empty() && !isThrough_) {
        lines = step();
    }
    return lines;
}

std::string Export::step() {
    const Turn<MOST_QUESTIONS> turn(questions_, QUESTION_WAIT, TOO_MUCH);
    search_.limit = static_cast<U32_t>(std::min<U64_t>(left_, EXPORT_PAGE));
    const Page page = view_.search(search_);
    std::string lines;
    for (const FoundEvent& event : page.events) {
        lines += isWhole(event) ? lineOf(event) : "";
    }
    left_ -= page.events.size();
    search_.before = page.next;
    isThrough_ = !page.next;
    if (page.next && (left_ == 0 || Clock::now() >= deadline_)) {
        isThrough_ = true;
        return lines +
               note("not all: narrow the search, or go on with before=" + page.next->text());
    }
    return lines;
}

} // namespace

Site::Site(View& view, SiteSettings settings) : view_(view), settings_(std::move(settings)) {}

Response Site::answer(const Request& request) {
    Response response;
    try {
        requireAccess(request, settings_.access);
        response = route(request);
    } catch (const Refusal& error) {
        response = refusal(error.status(), error.what());
    } catch (const evarchive::StoreError& error) {
        response = refusal(503, error.what());
    } catch (const std::exception& error) {
        response = refusal(500, error.what());
    }
    response.headers.insert(response.headers.end(), std::begin(HEADERS), std::end(HEADERS));
    response.headers.emplace_back("Cache-Control", "no-store");
    return response;
}

Response Site::route(const Request& request) {
    if (request.path.starts_with(API)) {
        return ask(request, request.path.substr(sizeof(API) - 1));
    }
    const PageFile* file = fileOf(request.path);
    const int status = file == nullptr ? 404 : 200; // the shell says so in words
    file = file == nullptr ? fileOf("/") : file;
    return {.status = status, .type = file->type, .body = std::string(file->content)};
}

Response Site::ask(const Request& request, const std::string& question) {
    if (question == "export") {
        return exported(request);
    }
    return {.body = askArchive(request, question)};
}

std::string Site::askArchive(const Request& request, const std::string& question) {
    const Turn<MOST_QUESTIONS> turn(questions_, QUESTION_WAIT, TOO_MUCH);
    if (question == "timeline") {
        return timeline(request);
    }
    const auto answer = ANSWERS.find(question);
    if (answer == ANSWERS.end()) {
        throw Refusal(404, "no such question; docs: evweb(8)");
    }
    return answer->second(view_, request.parameters);
}

std::string Site::timeline(const Request& request) {
    const Search search = searchOf(request.parameters, {"buckets"});
    const auto buckets = numberOf(request.parameters, "buckets", 1, MOST_BUCKETS).value_or(120);
    if (!search.filter.since) {
        throw Refusal(400, "since: is missing");
    }
    const auto until = search.filter.until.value_or(static_cast<U32_t>(time(nullptr)));
    Timeline timeline = bucketsOf(*search.filter.since, until, static_cast<U32_t>(buckets));
    view_.count(search, timeline);
    return textOf(timelineJson(timeline));
}

Response Site::exported(const Request& request) {
    const std::string form = valueOf(request.parameters, "form");
    if (form != "csv" && form != "jsonl") {
        throw Refusal(400, "form: csv or jsonl");
    }
    const bool isCsv = form == "csv";
    auto rows = std::make_shared<Export>(view_, searchOf(request.parameters, {"form"}), settings_,
                                         isCsv, questions_, exports_);
    Response response{.type = isCsv ? "text/csv; charset=utf-8" : "application/jsonl"};
    response.body = rows->first() + rows->step(); // what is wrong shows while it can still be said
    response.headers.emplace_back("Content-Disposition",
                                  "attachment; filename=\"events." + form + "\"");
    response.more = [rows] { return rows->piece(); };
    return response;
}

} // namespace evweb

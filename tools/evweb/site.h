/**
 * @file
 * The pages: what is answered to which address.
 */
#ifndef EVWEB_SITE_H
#define EVWEB_SITE_H

#include "access.h"
#include "query.h"

#include <semaphore>

namespace evweb {

constexpr int MOST_QUESTIONS = 8; ///< to the archive, at a time
constexpr int MOST_EXPORTS = 2;   ///< under way

struct SiteSettings {
    AccessRules access{};
    U64_t exportRows = 100'000;          ///< that are exported at most
    std::chrono::seconds exportTime{60}; ///< and in which time
};

/** A file that is part of the program. */
struct PageFile {
    const char* path; ///< "/app.js"
    const char* type;
    std::string_view content;
};

/** All files of share/event-manager/web. */
const std::vector<PageFile>& pageFiles();

/** Answers requests; several threads may ask. */
class Site {
  public:
    Site(View& view, SiteSettings settings);

    /** Never throws; every answer has the headers that keep a browser from doing anything else with
     * it. */
    Response answer(const Request& request);

  private:
    Response route(const Request& request);
    Response ask(const Request& request, const std::string& question);
    Response exported(const Request& request);
    std::string askArchive(const Request& request, const std::string& question);
    std::string timeline(const Request& request);

    View& view_;
    SiteSettings settings_;
    // An archive is not asked more at a time; others wait, and are told when that takes long.
    std::counting_semaphore<MOST_QUESTIONS> questions_{MOST_QUESTIONS};
    std::counting_semaphore<MOST_EXPORTS> exports_{MOST_EXPORTS};
};

} // namespace evweb

#endif

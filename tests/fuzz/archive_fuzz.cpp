/**
 * An archive in a file, some bytes of which are others than its archiver wrote, through what reads
 * archives: each is read to its end or refused, the same way twice, and nothing of it but text
 * comes out.
 */
#include "messages.h"

#include "archive.h"
#include "archive_report.h"
#include "evctl/filters/cursor.h"
#include "evctl/numbers/event_stats.h"
#include "evctl/views/event_json.h"
#include "evctl/views/event_view.h"
#include "sources/source.h"
#include "sqlite_layout.h"
#include "sqlite_store.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <sstream>

namespace {

using fuzz::Bytes;
using fuzz::Input;

// Readable, for whoever tries again without locks what could not be opened; nobody reads it.
constexpr char PATH[] = "/dev/null";

/** What SQLite, in this process, finds under PATH: bytes in memory. */
class MemoryFile {
  public:
    MemoryFile() : vfs_(sqlite3_vfs_find("memdb")) {
        sqlite3_vfs_register(vfs_, 1);
        storage_.resize(static_cast<std::size_t>(vfs_->szOsFile) / sizeof(std::max_align_t) + 1);
        int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_MAIN_DB;
        need(vfs_->xOpen(vfs_, PATH, file(), flags, &flags));
    }

    Bytes content() {
        sqlite3_int64 size = 0;
        need(file()->pMethods->xFileSize(file(), &size));
        Bytes bytes(static_cast<std::size_t>(size));
        need(file()->pMethods->xRead(file(), bytes.data(), static_cast<int>(size), 0));
        return bytes;
    }

    void replace(const Bytes& bytes) {
        need(file()->pMethods->xTruncate(file(), 0));
        need(file()->pMethods->xWrite(file(), bytes.data(), static_cast<int>(bytes.size()), 0));
    }

  private:
    static void need(int result) {
        fuzz::expect(result == SQLITE_OK, "the file in memory does not work");
    }
    sqlite3_file* file() { return reinterpret_cast<sqlite3_file*>(storage_.data()); }

    sqlite3_vfs* vfs_;
    std::vector<std::max_align_t> storage_{};
};

MemoryFile& memoryFile() {
    static MemoryFile file;
    return file;
}

/** Two logs, one of which has begun anew and has a hole; small pages make a small file. */
Bytes archiveBytes() {
    {
        evarchive::SqliteDatabase database(PATH, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, PATH);
        database.execute("PRAGMA page_size = 512");
        evarchive::prepareLayout(database, PATH);
    }
    const auto store = evarchive::openArchiveForUpkeep(PATH);
    evarchive::Archive archive(*store, {}, [](auto, const std::string&) {});
    archive.setTime(1'600'000'000);
    for (const fuzz::EventFields& event :
         std::vector<fuzz::EventFields>{{.sequenceId = 1},
                                        {.length = 700, .sequenceId = 2}, // over several pages
                                        {.sequenceId = 4},
                                        {.sequenceId = 9, .ours = false},
                                        {.sequenceId = 1, .fill = 'n'},
                                        {.sequenceId = 2, .fill = 'n'}}) {
        archive.fileEvent(1, fuzz::eventBody(event));
    }
    archive.commit();
    return memoryFile().content();
}

const Bytes& soundArchive() {
    static const Bytes bytes = archiveBytes();
    return bytes;
}

/** What an input makes of it: other bytes here and there, another end. */
Bytes changed(Input& input) {
    Bytes bytes = soundArchive();
    while (!input.over()) {
        const std::size_t place = input.half() % bytes.size();
        const auto others = input.take(input.byte() % 32U);
        if (others.empty()) {
            bytes.resize(std::max<std::size_t>(place, 1));
        }
        std::ranges::copy(others.first(std::min(others.size(), bytes.size() - place)),
                          bytes.begin() + static_cast<std::ptrdiff_t>(place));
    }
    return bytes;
}

/** @return how many events it gives, in all forms */
std::size_t show(sources::Source& source, evctl::Cursor& cursor) {
    evctl::EventStats stats;
    std::size_t events = 0;
    while (auto event = source.next()) {
        const std::string line = evctl::eventLine(event->view);
        fuzz::expect(line.find('\n') == std::string::npos, "an event is more than one line");
        fuzz::expect(evctl::Json::accept(evctl::jsonLine(evctl::eventJson(event->view))),
                     "an event's JSON cannot be read back");
        stats.add(event->view);
        cursor.moveTo(*event);
        events++;
    }
    evctl::statsLines(stats, 80);
    evctl::jsonLine(evctl::statsJson(stats));
    return events;
}

void readSources(bool allGenerations) {
    const sources::Sources all = sources::archiveSources(PATH, {.allGenerations = allGenerations});
    for (const auto& source : all) {
        fuzz::expect(source->origin().name.find_first_of("\n\x1B") == std::string::npos,
                     "a log's name has a control");
        evctl::Cursor cursor;
        const std::size_t events = show(*source, cursor);
        source->rewind();
        const auto parsed = evctl::Cursor::parse(cursor.text());
        fuzz::expect(parsed && parsed->text() == cursor.text(), "a cursor cannot be read back");
        evctl::Resume behind(*parsed, false);
        behind.look(*source);
        std::size_t again = 0;
        while (auto event = source->next()) {
            behind.wants(*event);
            again++;
        }
        fuzz::expect(again == events, "a log gives other events when read again");
    }
}

/** What is told of an archive is text, whatever it holds. */
void report(evarchive::ReportForm form) {
    std::ostringstream told;
    try {
        evarchive::checkArchive(PATH, form, told);
        evarchive::listArchive(PATH, form, told);
    } catch (const evarchive::StoreError&) {
        // what was told before stands
    }
    const std::string text = told.str();
    fuzz::expect(std::ranges::none_of(text,
                                      [](unsigned char letter) {
                                          return letter != '\n' && (letter < ' ' || letter > '~');
                                      }),
                 "a report has a control");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::uint8_t choice = input.byte();
    memoryFile();
    memoryFile().replace(changed(input));
    try {
        readSources(choice % 2 != 0);
    } catch (const evarchive::StoreError&) {
        // it is no archive, or none that can be read to its end
    }
    report(choice % 4 < 2 ? evarchive::ReportForm::TEXT : evarchive::ReportForm::JSON);
    return 0;
}

namespace fuzz {

std::vector<Bytes> seeds() {
    memoryFile();
    const Bytes& sound = soundArchive();
    auto placeOf = [&sound](std::string_view text) {
        const auto found = std::search(sound.begin(), sound.end(), text.begin(), text.end());
        expect(found != sound.end(), "what a seed changes is not in the archive");
        return static_cast<unsigned>(found - sound.begin());
    };
    auto change = [](Seed seed, unsigned place, std::string_view others) {
        return seed.half(place).byte(static_cast<unsigned>(others.size())).text(others).bytes;
    };
    // Wherever it stands: names are read from an index, too.
    Seed named = Seed().byte(3);
    const std::string_view name = "CHASSIS-9";
    for (auto at = sound.begin();
         (at = std::search(at, sound.end(), name.begin(), name.end())) != sound.end(); at++) {
        named.half(static_cast<unsigned>(at - sound.begin())).byte(6).text("\x1B[2J\n\xFF");
    }
    const Seed newest = Seed().byte(0);
    const Seed all = Seed().byte(3);
    return {newest.bytes,
            all.bytes,
            named.bytes,
            change(all, placeOf("nnnn"), "\n\x1B"), // data
            change(newest, placeOf("CREATE TABLE events"), "CREATE TABLE evenly"),
            change(newest, placeOf("eeeeeeee"), std::string(31, '\xFF')),
            change(all, 18, "\2\2"),    // as if it had been written with a log of SQLite's own
            change(all, 28, "\x7F"),    // pages
            change(newest, 16, "\x10"), // of another size
            change(all, static_cast<unsigned>(sound.size() / 2), "")};
}

} // namespace fuzz

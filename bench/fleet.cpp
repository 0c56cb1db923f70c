/**
 * @file
 * The other half of bench/fleet.py: what a shared archive costs without an archiver, and the blades
 * whose handshakes are timed. Each prints one line of JSON.
 *
 *   bench_fleet floor FROM TO HOW CONNECTIONS   files FROM's events into TO, in the order in which
 * they came HOW: "fence", "array" or "copy" bench_fleet fill PLACE EVENTS               logs of
 * 10,000 events each, spread over the last 28 days bench_fleet statements PLACE LOGS COUNT     what
 * a handshake asks the server, one after the other bench_fleet handshake PORT LOGS COUNT       one
 * after the other, of logs that "fill" has made bench_fleet safe PORT PLACE COUNT           one
 * event at a time: sent, until others can read it
 */
#include "postgres/log_number.h"
#include "postgres/pg_batch.h"
#include "postgres/pg_connection.h"
#include "postgres/pg_statements.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <iostream>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace evarchive;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t BATCH = 1000;
constexpr U32_t EVENTS_PER_LOG = 10'000;
constexpr U32_t RING = 6'000;
constexpr S64_t DAYS = 28;
constexpr std::size_t DATA_SIZE = 100;

double processorSeconds() {
    rusage use{};
    getrusage(RUSAGE_SELF, &use);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(use.ru_utime) + seconds(use.ru_stime);
}

double percentile(std::vector<double>& values, double share) {
    std::ranges::sort(values);
    return values.empty()
               ? 0
               : values[static_cast<std::size_t>(static_cast<double>(values.size() - 1) * share)];
}

// ---- the floor

// In the order in which they came, as far as one can still tell.
constexpr PgStatement EVENTS{
    "events", "SELECT log, generation, " PG_EVENT_COLUMNS
              " FROM events WHERE log % $1 = $2 OR log % $1 = -$2 ORDER BY tableoid, ctid"};
constexpr PgStatement LOGS{"logs",
                           "SELECT log, identity, enclosure, blade, slot, instance FROM logs"};
constexpr PgStatement NAME{"name",
                           "INSERT INTO logs (log, identity, enclosure, blade, slot, instance) "
                           "VALUES ($1, $2, $3, $4, $5, $6)"};

#define FLOOR_COLUMNS "log, generation, " PG_EVENT_COLUMNS
#define FLOOR_FILE                                                                                          \
    "INSERT INTO events (" FLOOR_COLUMNS                                                                    \
    ") SELECT * FROM unnest($1::bigint[], $2::bigint[], $3::bigint[], "                                     \
    "$4::timestamptz[], $5::timestamptz[], $6::integer[], $7::smallint[], $8::smallint[], $9::smallint[], " \
    "$10::smallint[], $11::boolean[], $12::boolean[], $13::bytea[], $14::bytea[])"

constexpr PgStatement FLOOR_FENCE{"floor_fence", "UPDATE logs SET seen = now() WHERE log = ANY($1) "
                                                 "RETURNING log, epoch, generation"};
constexpr PgStatement FLOOR_SAFE{"floor_safe", FLOOR_FILE " ON CONFLICT DO NOTHING"};
constexpr PgStatement FLOOR_ARRAY{"floor_array", FLOOR_FILE};

void copyLogs(const std::string& from, const std::string& to) {
    PgConnection source(from, PgPatience::endless());
    PgConnection target(to, PgPatience::endless());
    const PgRows rows = source.run(LOGS);
    for (int row = 0; row < rows.count(); ++row) {
        target.run(NAME, PgParameters()
                             .integer(rows.integer(row, 0))
                             .bytes(rows.bytes(row, 1))
                             .text(rows.text(row, 2))
                             .text(rows.text(row, 3))
                             .integer(rows.integer(row, 4))
                             .integer(rows.integer(row, 5)));
    }
}

PendingEvent eventOf(const PgRows& rows, int row) {
    PendingEvent event;
    event.generation = {rows.integer(row, 0), static_cast<U32_t>(rows.integer(row, 1))};
    event.row.sequenceId = static_cast<U32_t>(rows.integer(row, 2));
    event.row.time = static_cast<U32_t>(rows.time(row, 3));
    event.received = rows.time(row, 4);
    event.row.event = static_cast<U16_t>(rows.integer(row, 5));
    event.row.source = static_cast<U8_t>(rows.integer(row, 6));
    event.row.type = static_cast<U8_t>(rows.integer(row, 7));
    event.row.category = static_cast<U8_t>(rows.integer(row, 8));
    event.row.idVersion = static_cast<U8_t>(rows.integer(row, 9));
    event.own = rows.integer(row, 10) != 0;
    event.doubtful = rows.integer(row, 11) != 0;
    event.row.data = rows.bytes(row, 13);
    return event;
}

/** One of several that file at a time, each its own logs. */
class Floor {
  public:
    Floor(const std::string& from, const std::string& to, U32_t number, U32_t of)
        : connection_(to, PgPatience::endless()) {
        PgConnection source(from, PgPatience::endless());
        const PgRows rows = source.run(EVENTS, PgParameters().integer(of).integer(number));
        for (int row = 0; row < rows.count(); ++row) {
            events_.push_back(eventOf(rows, row));
        }
        for (std::size_t first = 0; first < events_.size(); first += BATCH) {
            const auto begin = events_.begin() + static_cast<std::ptrdiff_t>(first);
            const auto end =
                begin + static_cast<std::ptrdiff_t>(std::min(BATCH, events_.size() - first));
            std::sort(begin, end, [](const PendingEvent& left, const PendingEvent& right) {
                return std::tie(left.generation, left.row.sequenceId) <
                       std::tie(right.generation, right.row.sequenceId);
            });
        }
    }

    void file(bool isFenced) {
        for (std::size_t first = 0; first < events_.size(); first += BATCH) {
            const auto begun = Clock::now();
            fileBatch(first, std::min(BATCH, events_.size() - first), isFenced);
            commits_.push_back(std::chrono::duration<double>(Clock::now() - begun).count());
        }
    }

    std::size_t events() const { return events_.size(); }
    const std::vector<double>& commits() const { return commits_; }
    const std::vector<PendingEvent>& rows() const { return events_; }

  private:
    void fileBatch(std::size_t first, std::size_t count, bool isFenced) {
        PgBatch batch(Received::AS_TOLD);
        PgArray logs(PgType::BIGINT);
        for (std::size_t i = first; i < first + count; ++i) {
            const SeriesNumber log = events_[i].generation.series;
            if (i == first || log != events_[i - 1].generation.series) {
                logs.addNumber(log);
            }
            batch.add(events_[i]);
        }
        connection_.queue(pg::BEGIN);
        if (isFenced) {
            connection_.queue(FLOOR_FENCE, PgParameters().array(logs));
        }
        connection_.queue(isFenced ? FLOOR_SAFE : FLOOR_ARRAY, batch.parameters());
        connection_.sync();
        for (int answers = isFenced ? 3 : 2; answers > 0; --answers) {
            connection_.take();
        }
        connection_.finish();
        connection_.run(pg::COMMIT);
    }

    PgConnection connection_;
    std::vector<PendingEvent> events_;
    std::vector<double> commits_;
};

/** Rows as COPY takes them in binary. */
class CopyBatch {
  public:
    void add(const PendingEvent& event) {
        const EventRow& row = event.row;
        putNumber(bytes_, 14, 2);
        number(event.generation.series, 8);
        number(event.generation.generation, 8);
        number(row.sequenceId, 8);
        number(pgTime(row.time), 8);
        number(pgTime(event.received), 8);
        number(row.event, 4);
        for (const S64_t value : {row.source, row.type, row.category, row.idVersion}) {
            number(value, 2);
        }
        number(event.own ? 1 : 0, 1);
        number(event.doubtful ? 1 : 0, 1);
        putNumber(bytes_, -1, 4);
        putNumber(bytes_, static_cast<S64_t>(row.data.size()), 4);
        bytes_.insert(bytes_.end(), row.data.begin(), row.data.end());
    }

    void send(PGconn* connection) {
        static constexpr char HEADER[] = "PGCOPY\n\377\r\n\0\0\0\0\0\0\0\0";
        putNumber(bytes_, -1, 2);
        bytes_.insert(bytes_.begin(), HEADER, HEADER + 19);
        PQclear(PQexec(connection, "COPY events (" FLOOR_COLUMNS ") FROM STDIN (FORMAT binary)"));
        PQputCopyData(connection, reinterpret_cast<const char*>(bytes_.data()),
                      static_cast<int>(bytes_.size()));
        PQputCopyEnd(connection, nullptr);
        while (PGresult* result = PQgetResult(connection)) {
            if (PQresultStatus(result) != PGRES_COMMAND_OK) {
                throw std::runtime_error(PQresultErrorMessage(result));
            }
            PQclear(result);
        }
        bytes_.clear();
    }

  private:
    void number(S64_t value, unsigned size) {
        putNumber(bytes_, size, 4);
        putNumber(bytes_, value, size);
    }

    Bytes bytes_;
};

void copyEvents(const std::string& to, const std::vector<PendingEvent>& events) {
    const std::unique_ptr<PGconn, decltype(&PQfinish)> connection(PQconnectdb(to.c_str()),
                                                                  PQfinish);
    CopyBatch batch;
    for (std::size_t i = 0; i < events.size(); ++i) {
        batch.add(events[i]);
        if ((i + 1) % BATCH == 0 || i + 1 == events.size()) {
            batch.send(connection.get());
        }
    }
}

int floorOf(const std::string& from, const std::string& to, const std::string& how,
            U32_t connections) {
    copyLogs(from, to);
    std::vector<std::unique_ptr<Floor>> floors;
    for (U32_t number = 0; number < connections; ++number) {
        floors.push_back(std::make_unique<Floor>(from, to, number, connections));
    }
    std::cout << "ready" << std::endl;
    std::cin.get(); // what was done so far is not measured
    const auto begun = Clock::now();
    const double before = processorSeconds();
    std::vector<std::thread> threads;
    for (const auto& floor : floors) {
        threads.emplace_back([&, how] {
            how == "copy" ? copyEvents(to, floor->rows()) : floor->file(how == "fence");
        });
    }
    std::size_t events = 0;
    std::vector<double> commits;
    for (U32_t number = 0; number < connections; ++number) {
        threads[number].join();
        events += floors[number]->events();
        commits.insert(commits.end(), floors[number]->commits().begin(),
                       floors[number]->commits().end());
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begun).count();
    std::cout << R"({"events": )" << events << R"(, "seconds": )" << seconds << R"(, "cpu": )"
              << processorSeconds() - before << R"(, "commit50": )" << percentile(commits, 0.5)
              << R"(, "commit99": )" << percentile(commits, 0.99) << "}\n";
    return 0;
}

// ---- logs, and blades that ask about them

SeriesKey keyOf(U32_t number) {
    return {{"BENCH", "BLADE-" + std::to_string(number), 1}, 1};
}

Bytes dataOf(U32_t log, U32_t id) {
    Bytes data(DATA_SIZE, 'x');
    for (unsigned i = 0; i < 4; ++i) {
        data[i] = static_cast<U8_t>('a' + (log >> (4 * i)) % 16);
        data[4 + i] = static_cast<U8_t>('a' + (id >> (4 * i)) % 16);
    }
    return data;
}

void putLog(Bytes& bytes, const SeriesKey& key) {
    for (const std::string& text : {key.blade.enclosure, key.blade.blade}) {
        bytes.insert(bytes.end(), text.begin(), text.end());
        bytes.insert(bytes.end(), EMP_ID_TEXT_SIZE - text.size(), 0);
    }
    putNumber(bytes, key.blade.slot, 4);
    putNumber(bytes, key.instance, 4);
}

int fill(const std::string& place, U32_t events) {
    PgConnection connection(place, PgPatience::endless());
    const std::unique_ptr<PGconn, decltype(&PQfinish)> copying(PQconnectdb(place.c_str()),
                                                               PQfinish);
    const U32_t logs = std::max(1U, events / EVENTS_PER_LOG);
    const S64_t now = time(nullptr);
    std::vector<SeriesNumber> numbers;
    for (U32_t log = 0; log < logs; ++log) {
        const SeriesKey key = keyOf(log);
        const Bytes identity = identityOf(key);
        numbers.push_back(logNumber(identity));
        connection.run(NAME, PgParameters()
                                 .integer(numbers.back())
                                 .bytes(identity)
                                 .text(key.blade.enclosure)
                                 .text(key.blade.blade)
                                 .integer(key.blade.slot)
                                 .integer(key.instance));
    }
    CopyBatch batch;
    for (U32_t id = 0; id < EVENTS_PER_LOG; ++id) {
        const S64_t age = (EVENTS_PER_LOG - id) * DAYS * 86'400 / EVENTS_PER_LOG;
        for (U32_t log = 0; log < logs; ++log) {
            PendingEvent event;
            event.generation = {numbers[log], 1};
            event.row = {
                id, static_cast<U32_t>(now - age), 3, 27, 1, 2, 1, std::nullopt, dataOf(log, id)};
            event.received = now - age;
            batch.add(event);
        }
        if (id % 20 == 19) {
            batch.send(copying.get());
        }
    }
    connection.execute(
        "UPDATE logs SET generation = 1, highest = " + std::to_string(EVENTS_PER_LOG - 1) +
        "; "
        "INSERT INTO generations (log, generation, opened) SELECT log, 1, now() FROM logs");
    std::cout << R"({"logs": )" << logs << "}\n";
    return 0;
}

int connectTo(U16_t port) {
    const int link = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    place.sin_port = htons(port);
    const int one = 1;
    setsockopt(link, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (connect(link, reinterpret_cast<const sockaddr*>(&place), sizeof(place)) != 0) {
        throw std::runtime_error("the archiver takes no link");
    }
    return link;
}

Bytes headerOf(std::size_t length, S64_t type) {
    Bytes bytes;
    putNumber(bytes, 1, 2);
    putNumber(bytes, static_cast<S64_t>(length), 2);
    putNumber(bytes, type, 2);
    putNumber(bytes, 1, 2);
    putNumber(bytes, 0, 4);
    putNumber(bytes, 1000, 4);
    return bytes;
}

Bytes statusRequest(const SeriesKey& key, U32_t first, const Bytes& data) {
    Bytes bytes = headerOf(176, 6);
    putLog(bytes, key);
    putNumber(bytes, first, 4);
    putNumber(bytes, static_cast<S64_t>(data.size()), 2);
    putNumber(bytes, 0, 2);
    bytes.insert(bytes.end(), data.begin(), data.begin() + 24);
    bytes.resize(196, 0);
    return bytes;
}

// @return evSequenceIdLast, nothing when no data are held
std::optional<U32_t> ask(int link, const Bytes& request) {
    U8_t answer[192];
    if (write(link, request.data(), request.size()) != static_cast<ssize_t>(request.size()) ||
        recv(link, answer, sizeof(answer), MSG_WAITALL) != static_cast<ssize_t>(sizeof(answer))) {
        throw std::runtime_error("the archiver gave no answer");
    }
    U32_t last = 0;
    U32_t flags = 0;
    std::memcpy(&last, answer + 16 + 168, 4);
    std::memcpy(&flags, answer + 16 + 172, 4);
    return ntohl(flags) == 0 ? std::optional(ntohl(last)) : std::nullopt;
}

void print(const char* name, std::vector<double>& values) {
    std::cout << R"({")" << name << R"(50": )" << percentile(values, 0.5) << R"(, ")" << name
              << R"(99": )" << percentile(values, 0.99) << "}\n";
}

int handshake(U16_t port, U32_t logs, U32_t count) {
    std::vector<double> times;
    for (U32_t i = 0; i < count; ++i) {
        const U32_t log = i * 7919 % logs;
        const U32_t first = EVENTS_PER_LOG - RING;
        const Bytes request = statusRequest(keyOf(log), first, dataOf(log, first));
        const int link = connectTo(port);
        const auto begun = Clock::now();
        const auto last = ask(link, request);
        times.push_back(std::chrono::duration<double>(Clock::now() - begun).count());
        close(link);
        if (last != EVENTS_PER_LOG - 2) {
            throw std::runtime_error("a handshake was answered wrongly");
        }
    }
    print("handshake", times);
    return 0;
}

// What a handshake asks the server, in one round trip.
int statements(const std::string& place, U32_t logs, U32_t count) {
    PgConnection connection(place);
    std::vector<double> times;
    for (U32_t i = 0; i < count; ++i) {
        const Bytes identity = identityOf(keyOf(i * 7919 % logs));
        const SeriesNumber log = logNumber(identity);
        const S64_t first = EVENTS_PER_LOG - RING;
        const auto begun = Clock::now();
        connection.queue(pg::CLAIM,
                         PgParameters().integer(log).integer(1).bytes(identity).integer(first));
        connection.queue(pg::NEWEST, PgParameters().integer(log));
        connection.queue(pg::FIRST, PgParameters().integer(log).integer(first));
        connection.sync();
        for (int answers = 3; answers > 0; --answers) {
            connection.take();
        }
        connection.finish();
        times.push_back(std::chrono::duration<double>(Clock::now() - begun).count());
    }
    print("statements", times);
    return 0;
}

Bytes eventMessage(const SeriesKey& key, U32_t id, S64_t now) {
    Bytes message = headerOf(EMP_EVENT_HEADER_SIZE + DATA_SIZE, 1);
    putLog(message, key);
    putNumber(message, id, 4);
    putNumber(message, now, 4);
    putNumber(message, DATA_SIZE, 2);
    message.insert(message.end(), {27, 1, 2, 1, 0, 3});
    const Bytes data = dataOf(0, id);
    message.insert(message.end(), data.begin(), data.end());
    return message;
}

// Two events at a time, until somebody else sees the first.
int safe(U16_t port, const std::string& place, U32_t count) {
    constexpr PgStatement HELD{"held",
                               "SELECT 1 FROM events WHERE log = $1 AND generation = 1 AND id = $2 "
                               "AND time = $3"};
    PgConnection reader(place);
    const SeriesKey key{{"SAFE", "BLADE", 1}, 1};
    const SeriesNumber log = logNumber(identityOf(key));
    const int link = connectTo(port);
    ask(link, statusRequest(key, 0, dataOf(0, 0)));
    std::vector<double> times;
    for (U32_t id = 0; id < count; ++id) {
        const S64_t now = time(nullptr);
        // The second one is the border behind the first.
        Bytes message = eventMessage(key, 2 * id, now);
        const Bytes second = eventMessage(key, 2 * id + 1, now);
        message.insert(message.end(), second.begin(), second.end());
        const auto begun = Clock::now();
        if (write(link, message.data(), message.size()) != static_cast<ssize_t>(message.size())) {
            throw std::runtime_error("the archiver took no event");
        }
        while (reader.run(HELD, PgParameters().integer(log).integer(2 * id).time(now)).count() ==
               0) {
            if (Clock::now() > begun + std::chrono::seconds(10)) {
                throw std::runtime_error("an event was not filed");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        times.push_back(std::chrono::duration<double>(Clock::now() - begun).count());
        std::this_thread::sleep_for(std::chrono::milliseconds(id * 37 % 50));
    }
    close(link);
    print("safe", times);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const auto number = [&words](std::size_t at) {
        return static_cast<U32_t>(std::stoul(words.at(at)));
    };
    try {
        const std::string& what = words.at(0);
        if (what == "floor") {
            return floorOf(words.at(1), words.at(2), words.at(3), number(4));
        }
        if (what == "fill") {
            return fill(words.at(1), number(2));
        }
        if (what == "statements") {
            return statements(words.at(1), number(2), number(3));
        }
        if (what == "safe") {
            return safe(static_cast<U16_t>(number(1)), words.at(2), number(3));
        }
        if (what == "handshake") {
            return handshake(static_cast<U16_t>(number(1)), number(2), number(3));
        }
        throw std::runtime_error("what?");
    } catch (const std::exception& error) {
        std::cerr << "bench_fleet: " << error.what() << '\n';
        return 2;
    }
}

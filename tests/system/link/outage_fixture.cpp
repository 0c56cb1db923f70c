#include "outage_fixture.h"

#include "evlog/evlog.h"
#include "link_messages.h"
#include "sqlite_store.h"

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <sqlite3.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

using namespace support;

namespace {

constexpr size_t BATCH = 50; ///< events under way

/** A port below those that the system gives to connections, so that nobody takes it meanwhile. */
U16_t freePort() {
    for (int port = 20'000 + getpid() % 10'000; port < 32'000; ++port) {
        const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<U16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int result = bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        close(probe);
        if (result == 0) {
            return static_cast<U16_t>(port);
        }
    }
    throw std::runtime_error("no free port");
}

} // namespace

OutageTest::OutageTest() : port_(freePort()) {
    database_ = blade_.file("events.db");
    startEmp();
}

OutageTest::~OutageTest() {
    killEmp();
}

void OutageTest::killEmp() {
    emp_->process.signal(SIGKILL);
    emp_->process.wait();
    reader_.reset();
}

size_t OutageTest::eventsSoFar() const {
    return reader_->copies();
}

void OutageTest::startEmp() {
    emp_ = std::make_unique<RunningEmp>(blade_);
    emp_->start();
    reader_ = std::make_unique<MsmReader>(emp_->msm, copies_);
    emp_->process.waitForOutput("Wait for Event Messages.");
}

void OutageTest::reviveEmp() {
    reader_.reset();
    emp_->expectBugCheck("empSendForwardListToEventArchiver",
                         "Item on Forward Pending List isn't FORWARD or PARTIAL FORWARD?");
    ++deaths_;
    emp_.reset();
    startEmp();
    nameArchiver();
}

bool OutageTest::isAlive() {
    return !emp_->process.poll().has_value();
}

void OutageTest::send(const Bytes& message) {
    try {
        emp_->msm.send(message);
    } catch (const std::exception&) {
        emp_->process.wait(); // it is about to end
    }
}

void OutageTest::forgetOutput() const {
    // The file is opened for appending: its writer goes on at the new end.
    EXPECT_EQ(truncate(blade_.file("emp.out").c_str(), 0), 0);
}

void OutageTest::startArchiver(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"--receive-buffer", "4096", "--segment-size", "536"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    launchArchiver(all);
}

void OutageTest::startWideArchiver() {
    launchArchiver({});
}

void OutageTest::launchArchiver(std::vector<std::string> arguments) {
    const std::string place = "127.0.0.1:" + std::to_string(port_);
    arguments.insert(arguments.end(), {"--listen", place, "--db", database_, "--progress", "0"});
    archiver_ =
        std::make_unique<Process>(commandOf("evarchiver", arguments),
                                  blade_.file("archiver" + std::to_string(++archiverStarts_)));
    archiver_->waitForOutput("listening on ");
}

void OutageTest::stopArchiver() {
    archiver_->signal(SIGTERM);
    EXPECT_TRUE(archiver_->wait().exited);
    EXPECT_NE(archiver_->output().find(" 0 generations opened"), std::string::npos);
    EXPECT_EQ(archiver_->errorOutput(), "");
}

void OutageTest::killArchiver() {
    archiver_->signal(SIGKILL);
    EXPECT_EQ(archiver_->wait(), diedOf(SIGKILL));
}

void OutageTest::store(const Bytes& data, size_t batch) {
    const size_t before = reader_->copies();
    Bytes own = data;
    for (size_t i = 0; i < batch; ++i) {
        own[0] = static_cast<U8_t>(i);
        send(eventMessage(18, own));
    }
    if (!reader_->waitForCopies(before + batch)) {
        reviveEmp();
    }
}

void OutageTest::log(size_t count) {
    for (size_t logged = 0; logged < count; logged += BATCH) {
        Bytes data(4 + random(57));
        for (U8_t& byte : data) {
            byte = static_cast<U8_t>(random_());
        }
        store(data, std::min(BATCH, count - logged));
    }
}

void OutageTest::logLarge(size_t count) {
    for (size_t logged = 0; logged < count; logged += 4) {
        store(Bytes(3848, static_cast<U8_t>(random_())), 4);
    }
}

bool OutageTest::hasMetAFullLink() const {
    return emp_->process.output().find("Only send out partial") != std::string::npos;
}

void OutageTest::stall() {
    // A new connection takes little; an old one has grown.
    nameArchiver();
    log(1);
    settle();
    archiver_->signal(SIGSTOP);
    const size_t deaths = deaths_;
    for (int events = 0; deaths == deaths_; events += 4) {
        if (events > 200) {
            throw std::runtime_error("the link takes more than the log keeps");
        }
        logLarge(4);
        isConnected(); // so that the lines of the last event are there
        if (hasMetAFullLink()) {
            return;
        }
    }
}

bool OutageTest::isConnected() {
    send(bareMessage(5));
    const std::optional<Bytes> reply = reader_->reply(5);
    return reply && get16(*reply, 70) != 0;
}

void OutageTest::nameArchiver() {
    Bytes body = {127, 0, 0, 1};
    put16(body, port_);
    put16(body, 0);
    send(makeMmsg({.type = 3, .local = {27}}, body));
    reader_->reply(3);
}

void OutageTest::passReconnectTime() {
    Bytes passes;
    for (int i = 0; i < 301; ++i) {
        passes = std::move(passes) + bareMessage(4);
    }
    send(passes);
    isConnected(); // they all are through
}

void OutageTest::bringBack() {
    if (random(2) == 0) {
        nameArchiver();
    } else {
        passReconnectTime();
    }
}

U32_t OutageTest::held() const {
    // Not asked on the link: a second one of this blade would replace its own.
    const auto archive = evarchive::openArchiveForReading(database_);
    const auto series = archive->findSeries({{"CHASSIS-7", "BLADE-42", 3}, 0});
    const auto newest = series ? archive->newestGeneration(*series) : std::nullopt;
    U32_t last = 0;
    if (newest) {
        archive->forEachRun(newest->number, 0, [&last](const evarchive::IdRun& run) {
            last = run.first == 0 ? run.last : last;
        });
    }
    return last;
}

void OutageTest::settle() {
    const auto end = std::chrono::steady_clock::now() + DEADLINE;
    U32_t before = 0;
    int still = 0; // rounds without a further event on a link that is up
    while (!waitUntil([this] { return held() == reader_->newest(); },
                      std::chrono::milliseconds(200))) {
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("the archiver has events up to " + std::to_string(held()) +
                                     " of " + std::to_string(reader_->newest()) + "\n" +
                                     archiver_->output());
        }
        still = held() == before ? still + 1 : 0;
        before = held();
        if (!isAlive()) {
            reviveEmp();
        } else if (!isConnected()) {
            bringBack();
        } else if (still >= 10) {
            ++stuck_;
            nameArchiver();
            still = 0;
        } else {
            send(bareMessage(4)); // a pass for the forward timer
        }
    }
    forgetOutput();
}

EventBodies OutageTest::archived() const {
    sqlite3* database = nullptr;
    sqlite3_stmt* rows = nullptr;
    EventBodies found;
    if (sqlite3_open_v2(database_.c_str(), &database, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(database,
                           "SELECT id, image FROM events NATURAL JOIN series WHERE enclosure = "
                           "'CHASSIS-7' AND blade = 'BLADE-42' AND slot = 3 AND instance = 0",
                           -1, &rows, nullptr) == SQLITE_OK) {
        while (sqlite3_step(rows) == SQLITE_ROW) {
            const auto* image = static_cast<const U8_t*>(sqlite3_column_blob(rows, 1));
            found[static_cast<U32_t>(sqlite3_column_int64(rows, 0))] =
                Bytes(image, image + sqlite3_column_bytes(rows, 1));
        }
    }
    EXPECT_EQ(sqlite3_errcode(database), SQLITE_DONE) << sqlite3_errmsg(database);
    sqlite3_finalize(rows);
    sqlite3_close(database);
    return found;
}

EventBodies OutageTest::logged() const {
    EvlogImage_t image;
    EXPECT_EQ(evlogLoadFile(blade_.logPath().c_str(), &image), 0);
    EventBodies found;
    EvlogCallbacks_t callbacks;
    callbacks.onRecord = [&found](const EvlogRecord_t& record) {
        if (record.taken && !evlogIsDummy(*record.header)) {
            const auto* bytes = reinterpret_cast<const U8_t*>(record.header);
            found[record.header->evSequenceId] = Bytes(bytes + 8, bytes + 160 + record.body.size());
        }
    };
    callbacks.onFinding = [](const EvlogFinding_t& finding) {
        ADD_FAILURE() << "damage at " << finding.offset;
    };
    evlogWalk(image, callbacks);
    return found;
}

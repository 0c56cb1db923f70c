#include "metrics.h"

#include <CivetServer.h>
#include <filesystem>
#include <limits>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>
#include <stdexcept>

namespace evarchive {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

using State = std::function<ServerState()>;

void answer(mg_connection* connection, const char* status, const char* type,
            const std::string& text) {
    mg_printf(connection,
              "HTTP/1.1 %s\r\nContent-Type: %s\r\nContent-Length: %zu\r\n"
              "Cache-Control: no-store\r\n\r\n",
              status, type, text.size());
    mg_write(connection, text.data(), text.size());
}

/** /metrics */
class Figures : public CivetHandler {
  public:
    Figures(State state, const std::string& database)
        : state_(std::move(state)), directory_(std::filesystem::absolute(database).parent_path()) {}

    bool handleGet(CivetServer* /*server*/, mg_connection* connection) override {
        answer(connection, "200 OK", "text/plain; version=0.0.4; charset=utf-8",
               prometheus::TextSerializer().Serialize(collect()));
        return true;
    }

  private:
    std::vector<MetricFamily> collect() const;

    State state_;
    std::filesystem::path directory_;
};

/** /ready */
class Readiness : public CivetHandler {
  public:
    explicit Readiness(State state) : state_(std::move(state)) {}

    bool handleGet(CivetServer* /*server*/, mg_connection* connection) override {
        const std::string why = state_().notReady;
        answer(connection, why.empty() ? "200 OK" : "503 Service Unavailable",
               "text/plain; charset=utf-8", (why.empty() ? "ready" : why) + "\n");
        return true;
    }

  private:
    State state_;
};

MetricFamily family(MetricType type, const char* name, const char* help, double value) {
    ClientMetric metric;
    (type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
    return {std::string("evarchiver_") + name, help, type, {metric}};
}

template <typename Number>
MetricFamily counter(const char* name, const char* help, Number value) {
    return family(MetricType::Counter, name, help, static_cast<double>(value));
}

template <typename Number>
MetricFamily gauge(const char* name, const char* help, Number value) {
    return family(MetricType::Gauge, name, help, static_cast<double>(value));
}

MetricFamily histogram(const char* name, const char* help, const Times& times) {
    ClientMetric metric;
    metric.histogram.sample_sum = times.sum;
    for (std::size_t i = 0; i < times.counts.size(); ++i) {
        metric.histogram.sample_count += times.counts[i];
        metric.histogram.bucket.push_back(
            {metric.histogram.sample_count, i < Times::BOUNDS.size()
                                                ? Times::BOUNDS[i]
                                                : std::numeric_limits<double>::infinity()});
    }
    return {std::string("evarchiver_") + name, help, MetricType::Histogram, {metric}};
}

void addArchive(std::vector<MetricFamily>& all, const LaneState& lane) {
    const ArchiveCounts& counts = lane.counts;
    all.push_back(counter("events_stored_total", "Events stored.", counts.stored));
    all.push_back(counter("event_bytes_stored_total", "Bytes of events stored.", counts.bytes));
    all.push_back(counter("duplicates_total", "Events that were held already.", counts.duplicates));
    all.push_back(counter("generations_opened_total", "Logs that counted again from the start.",
                          counts.generations));
    all.push_back(counter("gaps_total", "Stretches of ids skipped on arrival.", counts.gaps));
    all.push_back(
        counter("events_set_aside_total", "Events that could not be filed.", counts.setAside));
    all.push_back(
        counter("events_refused_total", "Events refused by a full archive.", counts.refused));
    all.push_back(counter("events_expired_total", "Events that retention took.", lane.expired));
    all.push_back(
        counter("status_answers_total", "Status requests answered.", counts.statusAnswers));
    all.push_back(
        counter("inquiries_found_total", "Inquiries answered with an event.", counts.found));
    all.push_back(
        counter("inquiries_not_found_total", "Inquiries that found nothing.", counts.notFound));
    all.push_back(counter("commits_total", "Transactions committed.", lane.commits));
    all.push_back(counter("commit_seconds_total", "Time spent in commits.", lane.commitSeconds));
    all.push_back(gauge("commit_seconds_max", "The slowest commit.", lane.worstCommit));
    all.push_back(histogram("commit_seconds", "How long commits take.", lane.commitTimes));
    all.push_back(gauge("spooled_bytes", "What waits for the archive.", lane.spooled));
    all.push_back(gauge("lag_seconds", "How long the oldest of it has waited.", lane.lag));
    all.push_back(
        gauge("archive_away", "1 while the archive cannot be written.", lane.isAway ? 1 : 0));
    all.push_back(gauge("archive_refused", "1 while the archive refuses what is asked of it.",
                        lane.isRefused ? 1 : 0));
    all.push_back(gauge("archive_bytes", "Bytes of the archive in use.", lane.bytesUsed));
}

void addLinks(std::vector<MetricFamily>& all, const ServerState& state) {
    const LinkCounts& counts = state.counts;
    all.push_back(gauge("links", "Blades connected.", state.links));
    all.push_back(counter("received_bytes_total", "Bytes received.", counts.received));
    all.push_back(counter("messages_total", "Requests received.", counts.sessions.messages));
    all.push_back(counter("streams_without_borders_total",
                          "Streams that lost their message borders.", counts.sessions.bordersLost));
    all.push_back(
        counter("events_given_up_total", "Events given up with them.", counts.sessions.givenUp));
    all.push_back(counter("answers_shortened_total",
                          "Answers that would not have arrived in one piece.", counts.shortened));
    all.push_back(counter("answers_late_total", "Requests not answered in time.", counts.late));
    all.push_back(counter("links_shed_total", "Links closed because too much waits.", counts.shed));
    all.push_back(
        counter("links_replaced_total", "Links closed for a later one.", counts.replaced));
    all.push_back(counter("connections_refused_total", "Connections not taken.", counts.refused));
    all.push_back(
        histogram("handshake_seconds", "From a status request to its answer.", counts.handshakes));
    all.push_back(gauge("unsent_bytes", "Answers that wait for blades.", state.unsent));
}

std::vector<MetricFamily> Figures::collect() const {
    const ServerState state = state_();
    std::vector<MetricFamily> all;
    addArchive(all, state.lane);
    addLinks(all, state);
    std::error_code unknown;
    const auto space = std::filesystem::space(directory_, unknown);
    if (!unknown) {
        all.push_back(
            gauge("disk_free_bytes", "Room on the archive's file system.", space.available));
    }
    return all;
}

} // namespace

struct Metrics::Parts {
    Figures figures;
    Readiness readiness;
    CivetServer server;
};

Metrics::Metrics(const asio::ip::tcp::endpoint& place, std::function<ServerState()> state,
                 const std::string& database)
    : parts_(new Parts{Figures(state, database), Readiness(state),
                       CivetServer({"listening_ports", textOfEndpoint(place), "num_threads", "2",
                                    "request_timeout_ms", "5000"})}) {
    parts_->server.addHandler("/metrics", parts_->figures);
    parts_->server.addHandler("/ready", parts_->readiness);
}

Metrics::~Metrics() = default;

} // namespace evarchive

#include "metrics.h"

#include <filesystem>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

namespace evarchive {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

class Figures : public prometheus::Collectable {
  public:
    Figures(std::function<ServerState()> state, const std::string& database)
        : state_(std::move(state)), directory_(std::filesystem::absolute(database).parent_path()) {}

    std::vector<MetricFamily> Collect() const override;

  private:
    std::function<ServerState()> state_;
    std::filesystem::path directory_;
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
    all.push_back(gauge("spooled_bytes", "What waits for the archive.", lane.spooled));
    all.push_back(gauge("lag_seconds", "How long the oldest of it has waited.", lane.lag));
    all.push_back(
        gauge("archive_away", "1 while the archive cannot be written.", lane.isAway ? 1 : 0));
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
    all.push_back(gauge("unsent_bytes", "Answers that wait for blades.", state.unsent));
}

std::vector<MetricFamily> Figures::Collect() const {
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
    std::shared_ptr<Figures> figures;
    prometheus::Exposer exposer;
};

Metrics::Metrics(const asio::ip::tcp::endpoint& place, std::function<ServerState()> state,
                 const std::string& database)
    : parts_(new Parts{std::make_shared<Figures>(std::move(state), database),
                       prometheus::Exposer(textOfEndpoint(place), 1)}) {
    parts_->exposer.RegisterCollectable(parts_->figures);
}

Metrics::~Metrics() = default;

} // namespace evarchive

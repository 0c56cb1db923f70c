#include "log_number.h"
#include "pg_engine.h"

#include <algorithm>

namespace evarchive {

std::vector<Claim> PgStore::claimAll(const std::vector<Claimant>& claimants) {
    claiming_.clear();
    return guarded([&] {
        looked_.clear();
        std::vector<Claiming> claims;
        for (const Claimant& it : claimants) {
            claims.push_back({reads_.likelyNumberOf(it.key), &it, !reads_.knows(it.key)});
        }
        tryClaims(claims);
        std::vector<Claim> answer;
        for (Claiming& claiming : claims) {
            if (!claiming.claim) {
                claimByLook(claiming);
            }
            answer.push_back(*std::move(claiming.claim));
        }
        return answer;
    });
}

// The number is another log's, or a server took over that has no row of what was seen.
void PgStore::claimByLook(Claiming& claiming) {
    bool isKnown = false;
    const SeriesNumber number = reads_.numberOf(claiming.claimant->key, isKnown);
    std::vector<Claiming> one = {{number, claiming.claimant, !isKnown}};
    tryClaims(one);
    claiming = std::move(one.front());
    if (!claiming.claim) {
        reads_.forget(); // or another log has just taken it
        throw StoreConflict();
    }
}

// The claims and all that their handshakes ask next, in one round trip and one transaction; none of
// a log that has no row. Everybody locks rows in the order of their numbers.
void PgStore::tryClaims(std::vector<Claiming>& claims) {
    std::vector<Claiming*> inOrder;
    for (Claiming& claiming : claims) {
        inOrder.push_back(&claiming);
    }
    std::ranges::sort(inOrder, {}, &Claiming::number);
    claiming_.clear();
    for (const Claiming* claiming : inOrder) {
        claiming_.push_back(claiming->number);
        queueClaim(*claiming);
    }
    connection_.sync();
    std::vector<ClaimAnswers> answers;
    for (const Claiming* claiming : inOrder) {
        answers.push_back(
            aboutLog(claiming->claimant->key, [&] { return takeAnswers(*claiming); }));
    }
    connection_.finish();
    for (std::size_t i = 0; i < inOrder.size(); ++i) {
        const auto& [claimed, newest, held] = answers[i];
        takeClaim(*inOrder[i], claimed, newest, held);
    }
}

PgStore::ClaimAnswers PgStore::takeAnswers(const Claiming& claiming) {
    if (claiming.isNew) {
        connection_.take();
    }
    const PgRows claimed = connection_.take();
    const PgRows newest = connection_.take();
    return {claimed, newest, connection_.take()};
}

void PgStore::queueClaim(const Claiming& claiming) {
    const auto& [key, first] = *claiming.claimant;
    if (claiming.isNew) {
        queueName(key, claiming.number);
    }
    connection_.queue(pg::CLAIM, PgParameters()
                                     .integer(claiming.number)
                                     .integer(owner_)
                                     .bytes(identityOf(key))
                                     .integer(first));
    connection_.queue(pg::NEWEST, PgParameters().integer(claiming.number));
    connection_.queue(pg::FIRST, PgParameters().integer(claiming.number).integer(first));
}

void PgStore::takeClaim(Claiming& claiming, const PgRows& claimed, const PgRows& newest,
                        const PgRows& held) {
    if (claimed.count() == 0) {
        return;
    }
    const auto& [key, first] = *claiming.claimant;
    const SeriesNumber number = claiming.number;
    reads_.remember(number, key);
    Known& log = known_[number] = {};
    log.read(claimed, 0, 0);
    log.isOwned = true;
    claiming.claim = Claim{number, std::nullopt};
    if (newest.count() > 0) {
        const GenerationInfo info = newestOf(generationOf(newest, 0, 0, number), first);
        looked_.put(info.number, first,
                    held.count() > 0 ? std::optional(PgReads::eventOf(held, 0, key))
                                     : std::nullopt);
        claiming.claim->newest = info;
    }
}

} // namespace evarchive

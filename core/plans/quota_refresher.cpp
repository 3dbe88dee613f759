#include "core/plans/quota_refresher.hpp"

#include <algorithm>
#include <cmath>

namespace kestrel {
namespace {

constexpr double kFirstBackoff = 60;
constexpr double kMaxBackoff = 3600;
constexpr double kMaxRetryAfter = 6 * 3600;

// Marks the stored reading stale, once; a reading already stale is left as it is.
bool markStale(const QuotaSlot& slot) {
    auto stored = slot.load();
    if (!stored || stored->stale) {
        return false;
    }
    stored->stale = true;
    return slot.save(*stored);
}

}  // namespace

double QuotaRefresher::backoffSeconds(int failuresInARow, std::optional<double> retryAfter) {
    if (retryAfter && *retryAfter >= 0) {
        return std::min(*retryAfter, kMaxRetryAfter);
    }
    const int doublings = std::clamp(failuresInARow - 1, 0, 20);
    return std::min(kFirstBackoff * std::ldexp(1.0, doublings), kMaxBackoff);
}

std::uint64_t QuotaRefresher::begin(const std::string& accountID) {
    std::lock_guard guard(mutex_);
    return ++accounts_[accountID].lastBegun;
}

bool QuotaRefresher::isNewest(const std::string& accountID, std::uint64_t number) const {
    std::lock_guard guard(mutex_);
    const auto it = accounts_.find(accountID);
    return it != accounts_.end() && it->second.lastBegun == number;
}

std::vector<QuotaBackoff> QuotaRefresher::backoffs(double now) const {
    std::lock_guard guard(mutex_);
    std::vector<QuotaBackoff> out;
    for (const auto& [id, state] : accounts_) {
        if (state.blockedUntil > now) {
            out.push_back({id, state.throttledInARow, state.blockedUntil});
        }
    }
    return out;
}

void QuotaRefresher::restore(const std::vector<QuotaBackoff>& backoffs) {
    std::lock_guard guard(mutex_);
    for (const auto& b : backoffs) {
        auto& state = accounts_[b.accountID];
        state.throttledInARow = std::max(state.throttledInARow, b.throttledInARow);
        state.blockedUntil = std::max(state.blockedUntil, b.blockedUntil);
    }
}

std::optional<double> QuotaRefresher::blockedUntil(const std::string& accountID, double now) const {
    std::lock_guard guard(mutex_);
    const auto it = accounts_.find(accountID);
    if (it == accounts_.end() || it->second.blockedUntil <= now) {
        return std::nullopt;
    }
    return it->second.blockedUntil;
}

void QuotaRefresher::noteAnswer(const std::string& accountID, const ProbeAnswer& answer,
                                double now) {
    std::lock_guard guard(mutex_);
    auto& state = accounts_[accountID];
    if (answer.error && answer.error->kind == ProbeError::Kind::rateLimited) {
        ++state.throttledInARow;
        state.blockedUntil =
            now + backoffSeconds(state.throttledInARow, answer.error->retryAfterSeconds);
    } else if (answer.snapshot) {
        state.throttledInARow = 0;
        state.blockedUntil = 0;
    }
}

QuotaRefreshOutcome QuotaRefresher::refresh(const std::string& accountID, const QuotaSlot& slot,
                                            const std::function<ProbeAnswer()>& probe, double now) {
    QuotaRefreshOutcome outcome;
    outcome.accountID = accountID;
    if (auto until = blockedUntil(accountID, now)) {
        outcome.status = QuotaRefreshOutcome::Status::backingOff;
        outcome.retryAt = until;
        outcome.changed = markStale(slot);
        return outcome;
    }
    const std::uint64_t number = begin(accountID);
    const ProbeAnswer answer = probe();
    if (!isNewest(accountID, number)) {
        outcome.status = QuotaRefreshOutcome::Status::superseded;
        return outcome;
    }
    noteAnswer(accountID, answer, now);
    if (answer.snapshot) {
        outcome.status = QuotaRefreshOutcome::Status::refreshed;
        outcome.changed = slot.save(*answer.snapshot);
        return outcome;
    }
    if (!answer.error) {
        outcome.status = answer.absentStatus;
        return outcome;
    }
    outcome.status = QuotaRefreshOutcome::Status::failed;
    outcome.error = answer.error;
    outcome.retryAt = blockedUntil(accountID, now);
    outcome.changed = markStale(slot);
    return outcome;
}

}  // namespace kestrel

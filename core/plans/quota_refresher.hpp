#pragma once
// Runs quota probes for accounts and stores what they bring: numbers the requests per account
// so that only the newest answer is kept, backs off an account the provider throttles, and
// marks the last stored reading stale when a probe fails instead of dropping it.

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/model/account_snapshot.hpp"
#include "core/plans/probe_error.hpp"

namespace kestrel {

struct QuotaRefreshOutcome {
    enum class Status {
        refreshed,    // a new reading was stored
        notSignedIn,  // no credential: no request was made
        noKey,        // no API key stored for the account
        backingOff,   // throttled earlier; `retryAt` says until when
        unsupported,  // no probe for this account
        failed,       // `error` says why; the stored reading, if any, is now stale
        superseded,   // a newer request for the account answered first; this one was dropped
    };
    std::string accountID;
    Status status = Status::failed;
    std::optional<ProbeError> error;
    std::optional<double> retryAt;
    bool changed = false;  // the stored reading changed (new values or the stale mark)

    bool operator==(const QuotaRefreshOutcome&) const = default;
};

// Where a refresh reads and writes one account's reading.
struct QuotaSlot {
    std::function<std::optional<AccountSnapshot>()> load;
    std::function<bool(const AccountSnapshot&)> save;  // true when the stored reading changed
};

// A probe's answer for the refresher: a reading, none (not signed in / no key), or an error.
struct ProbeAnswer {
    std::optional<AccountSnapshot> snapshot;
    std::optional<ProbeError> error;
    QuotaRefreshOutcome::Status absentStatus = QuotaRefreshOutcome::Status::notSignedIn;
};

// An account the provider throttled: kept across runs so a new process does not ask again early.
struct QuotaBackoff {
    std::string accountID;
    int throttledInARow = 0;
    double blockedUntil = 0;

    bool operator==(const QuotaBackoff&) const = default;
};

class QuotaRefresher {
  public:
    // The wait before asking a throttled account again: Retry-After when given (at most six
    // hours), else one minute doubled per failure in a row, at most an hour.
    static double backoffSeconds(int failuresInARow, std::optional<double> retryAfter);

    // Numbers a new request for `accountID`.
    std::uint64_t begin(const std::string& accountID);
    // True when no request for the account was begun after `number`.
    bool isNewest(const std::string& accountID, std::uint64_t number) const;
    // The instant before which the account is not asked again; absent when it may be.
    std::optional<double> blockedUntil(const std::string& accountID, double now) const;

    // The accounts still blocked at `now`, and restoring them in another run.
    std::vector<QuotaBackoff> backoffs(double now) const;
    void restore(const std::vector<QuotaBackoff>& backoffs);

    // Runs `probe` for the account unless it is backing off, and stores the outcome in `slot`.
    QuotaRefreshOutcome refresh(const std::string& accountID, const QuotaSlot& slot,
                                const std::function<ProbeAnswer()>& probe, double now);

  private:
    struct AccountState {
        std::uint64_t lastBegun = 0;
        int throttledInARow = 0;
        double blockedUntil = 0;
    };
    void noteAnswer(const std::string& accountID, const ProbeAnswer& answer, double now);

    mutable std::mutex mutex_;
    std::map<std::string, AccountState> accounts_;
};

}  // namespace kestrel

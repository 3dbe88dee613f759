#pragma once
// Turns what readers produce (UsageEvents) into what the ledger commits (observations grouped in
// one UsageBatch per adapter run). Identities carry over unchanged: the observation id is the
// event id, so re-reading the same record always lands on the same rows.

#include <optional>
#include <string>
#include <vector>

#include "core/ledger/ledger_records.hpp"
#include "core/model/usage_event.hpp"

namespace kestrel::UsageBatchBuilder {

// The ledger event promoted from an observation has this id ("le:" + observation id).
std::string ledgerEventID(const std::string& observationID);

// Id of a validation finding: one per observation and code, so that re-validating replaces it.
std::string validationIssueID(const std::string& observationID, CoverageIssueCode code);

// One observation of `event`, read at `observedAt`. The session key is kept only when
// `storeSession` allows it.
UsageObservation observation(const UsageEvent& event, double observedAt, bool storeSession);

// A fresh run id for `adapterID`: unique per run, so that a re-run is never mistaken for a
// duplicate of an earlier one.
std::string newRunID(const std::string& adapterID, double now);

// A batch of all `events` for one source and adapter run.
UsageBatch batch(const std::string& runID, const std::string& adapterID, AgentSource source,
                 const std::vector<UsageEvent>& events, double startedAt, double completedAt,
                 bool storeSession, std::optional<AdapterCheckpoint> checkpoint = std::nullopt);

}  // namespace kestrel::UsageBatchBuilder

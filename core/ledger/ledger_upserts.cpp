#include "core/ledger/ledger_upserts.hpp"

namespace kestrel::LedgerUpserts {
namespace {

std::string placeholders(int columns, int rows) {
    std::string row = "(";
    for (int c = 0; c < columns; ++c) {
        row += c == 0 ? "?" : ",?";
    }
    row += ")";
    std::string out;
    out.reserve(static_cast<std::size_t>(rows) * (row.size() + 2));
    for (int r = 0; r < rows; ++r) {
        out += r == 0 ? "" : ",\n";
        out += row;
    }
    return out;
}

std::string inList(int rows) {
    std::string out = "(";
    for (int r = 0; r < rows; ++r) {
        out += r == 0 ? "?" : ",?";
    }
    return out + ")";
}

}  // namespace

std::string observations(int rows) {
    return "INSERT INTO usage_observations(\n"
           "  id, run_id, integration_instance_id, account_id, source, provider, model,\n"
           "  occurred_at, observed_at, time_quality, precision, session_key,\n"
           "  project_display_name, evidence_fingerprint, input_uncached, cache_read,\n"
           "  cache_write, output_visible, reasoning, provider_input_total,\n"
           "  provider_output_total, provider_total, breakdown_trusted,\n"
           "  usage_semantics_version, cost_usd_micros, cost_completeness, cost_source,\n"
           "  price_version, fx_version, billing_mode, granularity\n"
           ") VALUES " +
           placeholders(kObservationColumns, rows) +
           "\nON CONFLICT(id) DO UPDATE SET\n"
           "  run_id=excluded.run_id,\n"
           "  integration_instance_id=excluded.integration_instance_id,\n"
           "  account_id=excluded.account_id, source=excluded.source,\n"
           "  provider=excluded.provider, model=excluded.model,\n"
           "  occurred_at=excluded.occurred_at, observed_at=excluded.observed_at,\n"
           "  time_quality=excluded.time_quality, precision=excluded.precision,\n"
           "  session_key=excluded.session_key,\n"
           "  project_display_name=excluded.project_display_name,\n"
           "  evidence_fingerprint=excluded.evidence_fingerprint,\n"
           "  input_uncached=excluded.input_uncached, cache_read=excluded.cache_read,\n"
           "  cache_write=excluded.cache_write, output_visible=excluded.output_visible,\n"
           "  reasoning=excluded.reasoning,\n"
           "  provider_input_total=excluded.provider_input_total,\n"
           "  provider_output_total=excluded.provider_output_total,\n"
           "  provider_total=excluded.provider_total,\n"
           "  breakdown_trusted=excluded.breakdown_trusted,\n"
           "  usage_semantics_version=excluded.usage_semantics_version,\n"
           "  cost_usd_micros=excluded.cost_usd_micros,\n"
           "  cost_completeness=excluded.cost_completeness,\n"
           "  cost_source=excluded.cost_source, price_version=excluded.price_version,\n"
           "  fx_version=excluded.fx_version, billing_mode=excluded.billing_mode,\n"
           "  granularity=excluded.granularity;";
}

std::string events(int rows) {
    return "INSERT INTO ledger_events(\n"
           "  id, observation_id, integration_instance_id, account_id, occurred_at,\n"
           "  source, provider, model, session_key, project_display_name,\n"
           "  input_uncached, cache_read, cache_write, output_visible, reasoning,\n"
           "  provider_input_total, provider_output_total, provider_total,\n"
           "  usage_semantics_version, created_at, updated_at\n"
           ") VALUES " +
           placeholders(kEventColumns, rows) +
           "\nON CONFLICT(id) DO UPDATE SET\n"
           "  observation_id=excluded.observation_id,\n"
           "  integration_instance_id=excluded.integration_instance_id,\n"
           "  account_id=excluded.account_id, occurred_at=excluded.occurred_at,\n"
           "  source=excluded.source, provider=excluded.provider,\n"
           "  model=excluded.model, session_key=excluded.session_key,\n"
           "  project_display_name=excluded.project_display_name,\n"
           "  input_uncached=excluded.input_uncached,\n"
           "  cache_read=excluded.cache_read, cache_write=excluded.cache_write,\n"
           "  output_visible=excluded.output_visible,\n"
           "  reasoning=excluded.reasoning,\n"
           "  provider_input_total=excluded.provider_input_total,\n"
           "  provider_output_total=excluded.provider_output_total,\n"
           "  provider_total=excluded.provider_total,\n"
           "  usage_semantics_version=excluded.usage_semantics_version,\n"
           "  updated_at=excluded.updated_at;";
}

std::string costs(int rows) {
    return "INSERT INTO ledger_costs(\n"
           "  ledger_event_id, amount_usd_micros, completeness, cost_source,\n"
           "  price_version, fx_version, billing_mode, updated_at\n"
           ") VALUES " +
           placeholders(kCostColumns, rows) +
           "\nON CONFLICT(ledger_event_id) DO UPDATE SET\n"
           "  amount_usd_micros=excluded.amount_usd_micros,\n"
           "  completeness=excluded.completeness, cost_source=excluded.cost_source,\n"
           "  price_version=excluded.price_version, fx_version=excluded.fx_version,\n"
           "  billing_mode=excluded.billing_mode, updated_at=excluded.updated_at;";
}

std::string deleteFindings(int rows) {
    return "DELETE FROM coverage_issues WHERE origin='validation' AND observation_id IN " +
           inList(rows) + ";";
}

std::string deleteEvents(int rows) {
    return "DELETE FROM ledger_events WHERE observation_id IN " + inList(rows) + ";";
}

std::string deleteEventCosts(int rows) {
    return "DELETE FROM ledger_costs WHERE ledger_event_id IN (SELECT id FROM ledger_events "
           "WHERE observation_id IN " +
           inList(rows) + ");";
}

std::string storedObservations(int rows) {
    return "SELECT id, occurred_at, time_quality, session_key, project_display_name,\n"
           "  provider, model, precision, granularity, evidence_fingerprint,\n"
           "  input_uncached, cache_read, cache_write, output_visible, reasoning,\n"
           "  provider_input_total, provider_output_total, provider_total, breakdown_trusted,\n"
           "  usage_semantics_version, cost_usd_micros, cost_completeness, cost_source,\n"
           "  price_version, fx_version, billing_mode\n"
           "FROM usage_observations WHERE id IN " +
           inList(rows) + ";";
}

}  // namespace kestrel::LedgerUpserts

#include "core/ledger/ledger_query.hpp"

namespace kestrel {

LedgerFilter ledgerFilter(const LedgerQuery& q) {
    LedgerFilter f;
    std::string sql;
    auto add = [&](std::string_view condition) {
        sql += sql.empty() ? "" : " AND ";
        sql += condition;
    };
    if (q.from) {
        add("e.occurred_at >= ?");
        f.parameters.emplace_back(*q.from);
    }
    if (q.to) {
        add("e.occurred_at < ?");
        f.parameters.emplace_back(*q.to);
    }
    if (q.source) {
        add("e.source = ?");
        f.parameters.emplace_back(std::string(rawValue(*q.source)));
    }
    if (q.integrationInstanceID) {
        add("e.integration_instance_id = ?");
        f.parameters.emplace_back(*q.integrationInstanceID);
    }
    if (q.accountScope) {
        switch (q.accountScope->kind) {
            case LedgerAccountScope::Kind::account:
                add("e.account_id = ?");
                f.parameters.emplace_back(q.accountScope->accountID);
                break;
            case LedgerAccountScope::Kind::unassigned:
                add("e.account_id IS NULL");
                break;
            case LedgerAccountScope::Kind::all:
                break;
        }
    }
    if (q.provider) {
        add("e.provider = ?");
        f.parameters.emplace_back(*q.provider);
    }
    if (q.model) {
        add("e.model = ?");
        f.parameters.emplace_back(*q.model);
    }
    if (q.projectDisplayName) {
        add("e.project_display_name = ?");
        f.parameters.emplace_back(*q.projectDisplayName);
    }
    if (q.search && !q.search->empty()) {
        // instr on lower-cased text: LIKE would treat % and _ in the user's text as wildcards.
        add("(instr(lower(e.model), lower(?)) > 0 OR instr(lower(COALESCE(e.project_display_name, "
            "'')), lower(?)) > 0 OR instr(lower(e.provider), lower(?)) > 0 OR "
            "instr(lower(e.source), lower(?)) > 0)");
        for (int i = 0; i < 4; ++i) {
            f.parameters.emplace_back(*q.search);
        }
    }
    f.sql = sql.empty() ? "1" : sql;
    return f;
}

}  // namespace kestrel

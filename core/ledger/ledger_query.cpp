#include "core/ledger/ledger_query.hpp"

#include <cctype>

#include "core/model/checked_math.hpp"

namespace kestrel {
namespace {

std::optional<int64_t> plus(std::optional<int64_t> a, std::optional<int64_t> b) {
    if (!a) {
        return b;
    }
    if (!b) {
        return a;
    }
    return checkedAdd(*a, *b, "ledger summary");
}

// The search text as it restricts: trimmed, and nothing at all when only blanks are left.
std::optional<std::string_view> searchText(const LedgerQuery& q) {
    if (!q.search) {
        return std::nullopt;
    }
    std::string_view s = *q.search;
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) {
        s.remove_prefix(1);
    }
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) {
        s.remove_suffix(1);
    }
    return s.empty() ? std::nullopt : std::optional(s);
}

class Builder {
  public:
    void add(std::string clause) { f_.sql += " AND " + std::move(clause); }
    void add(std::string clause, std::variant<std::string, double> value) {
        add(std::move(clause));
        f_.parameters.push_back(std::move(value));
    }
    void search(std::string_view text, std::initializer_list<std::string_view> columns) {
        const auto pattern = likeSubstringPattern(text);
        std::string clause = "(";
        for (auto column : columns) {
            clause += clause.size() > 1 ? " OR " : "";
            clause += "LOWER(" + std::string(column) + ") LIKE ? ESCAPE '\\'";
            f_.parameters.emplace_back(pattern);
        }
        f_.sql += " AND " + clause + ")";
    }
    LedgerFilter take() { return std::move(f_); }

  private:
    LedgerFilter f_;
};

}  // namespace

LedgerSummary& LedgerSummary::operator+=(const LedgerSummary& o) {
    eventCount = checkedAdd(eventCount, o.eventCount, "ledger summary");
    inputUncached = plus(inputUncached, o.inputUncached);
    cacheRead = plus(cacheRead, o.cacheRead);
    cacheWrite = plus(cacheWrite, o.cacheWrite);
    outputVisible = plus(outputVisible, o.outputVisible);
    reasoning = plus(reasoning, o.reasoning);
    fullyKnownTokenTotal = plus(fullyKnownTokenTotal, o.fullyKnownTokenTotal);
    knownProviderTokenTotal = plus(knownProviderTokenTotal, o.knownProviderTokenTotal);
    knownCostUSDMicros = plus(knownCostUSDMicros, o.knownCostUSDMicros);
    pricedEventCount = checkedAdd(pricedEventCount, o.pricedEventCount, "ledger summary");
    unknownCostEventCount =
        checkedAdd(unknownCostEventCount, o.unknownCostEventCount, "ledger summary");
    tokenKnownEventCount =
        checkedAdd(tokenKnownEventCount, o.tokenKnownEventCount, "ledger summary");
    unknownTokenEventCount =
        checkedAdd(unknownTokenEventCount, o.unknownTokenEventCount, "ledger summary");
    return *this;
}

std::string likeSubstringPattern(std::string_view text) {
    std::string out = "%";
    for (char c : text) {
        if (c == '%' || c == '_' || c == '\\') {
            out += '\\';
        }
        // SQLite's LOWER folds ASCII only; so must the pattern.
        out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    out += '%';
    return out;
}

LedgerFilter ledgerFilter(const LedgerQuery& q, std::string_view alias) {
    const std::string a(alias);
    Builder b;
    if (q.from) {
        b.add(a + ".occurred_at>=?", *q.from);
    }
    if (q.to) {
        b.add(a + ".occurred_at<?", *q.to);
    }
    if (q.source) {
        b.add(a + ".source=?", std::string(rawValue(*q.source)));
    }
    if (q.integrationInstanceID) {
        b.add(a + ".integration_instance_id=?", *q.integrationInstanceID);
    }
    if (q.accountScope) {
        switch (q.accountScope->kind) {
            case LedgerAccountScope::Kind::account:
                b.add(a + ".account_id=?", q.accountScope->accountID);
                break;
            case LedgerAccountScope::Kind::unassigned:
                b.add(a + ".account_id IS NULL");
                break;
            case LedgerAccountScope::Kind::all:
                break;
        }
    }
    if (q.provider) {
        b.add(a + ".provider=?", *q.provider);
    }
    if (q.model) {
        b.add(a + ".model=?", *q.model);
    }
    if (q.projectDisplayName) {
        b.add(a + ".project_display_name=?", *q.projectDisplayName);
    }
    if (q.sessionKey) {
        b.add(a + ".session_key=?", *q.sessionKey);
    }
    if (auto text = searchText(q)) {
        b.search(*text, {a + ".model", "COALESCE(" + a + ".project_display_name,'')",
                         a + ".provider", a + ".source"});
    }
    return b.take();
}

LedgerFilter coverageFilter(const LedgerQuery& q) {
    Builder b;
    if (q.from) {
        b.add("COALESCE(o.occurred_at,ci.detected_at)>=?", *q.from);
    }
    if (q.to) {
        b.add("COALESCE(o.occurred_at,ci.detected_at)<?", *q.to);
    }
    if (q.source) {
        b.add("COALESCE(o.source,ci.source)=?", std::string(rawValue(*q.source)));
    }
    if (q.integrationInstanceID) {
        b.add("COALESCE(o.integration_instance_id,ci.integration_instance_id)=?",
              *q.integrationInstanceID);
    }
    if (q.accountScope) {
        switch (q.accountScope->kind) {
            case LedgerAccountScope::Kind::account:
                b.add("o.account_id=?", q.accountScope->accountID);
                break;
            case LedgerAccountScope::Kind::unassigned:
                b.add("o.account_id IS NULL");
                break;
            case LedgerAccountScope::Kind::all:
                break;
        }
    }
    if (q.provider) {
        b.add("o.provider=?", *q.provider);
    }
    if (q.model) {
        b.add("o.model=?", *q.model);
    }
    if (q.projectDisplayName) {
        b.add("o.project_display_name=?", *q.projectDisplayName);
    }
    if (q.sessionKey) {
        b.add("o.session_key=?", *q.sessionKey);
    }
    if (auto text = searchText(q)) {
        b.search(*text, {"o.model", "COALESCE(o.project_display_name,'')", "o.provider",
                         "COALESCE(o.source,ci.source,'')"});
    }
    return b.take();
}

}  // namespace kestrel

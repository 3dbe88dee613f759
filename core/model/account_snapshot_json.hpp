#pragma once
// JSON form of a quota reading, as kept in quota_accounts.json: keys are the field names, enums
// their raw strings, absent optionals null. Decoding accepts a missing optional, and a missing
// `plans`, `stale` or `completeness` (readings stored before those existed).

#include <nlohmann/json_fwd.hpp>

#include "core/model/account_snapshot.hpp"

namespace kestrel {

void to_json(nlohmann::json& j, const PurchasedPlan& p);
void from_json(const nlohmann::json& j, PurchasedPlan& p);
void to_json(nlohmann::json& j, const QuotaWindow& w);
void from_json(const nlohmann::json& j, QuotaWindow& w);
void to_json(nlohmann::json& j, const AccountIdentity& i);
void from_json(const nlohmann::json& j, AccountIdentity& i);
void to_json(nlohmann::json& j, const AccountSnapshot& s);
void from_json(const nlohmann::json& j, AccountSnapshot& s);

}  // namespace kestrel

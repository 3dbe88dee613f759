#pragma once
// The user's settings as readers see them. The full record (menu-bar, theme, language, currency,
// notification fields) and its persistence in the ledger's settings table are added with the
// reports; readers only need the fields below.

#include <cstdint>
#include <optional>
#include <string>

#include "core/model/usage_enums.hpp"

namespace kestrel {

struct AppSettings {
    BillingMode billingMode = BillingMode::apiEquivalent;
    int64_t cnyPerUsdE4 = 72000;  // yuan per dollar x 10,000
    int64_t fxVersion = 0;
    std::optional<std::string> fxDate;
    std::optional<std::string> fxProvider;
    int64_t retentionDays = 0;  // 0 keeps everything
    // The data never leave the machine and per-project reports need these, so both default on.
    bool storeProject = true;
    bool storeSession = true;
    std::optional<double> usageImportSince;  // ignore usage older than this, when set

    bool operator==(const AppSettings&) const = default;
};

}  // namespace kestrel

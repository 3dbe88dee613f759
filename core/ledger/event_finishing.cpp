#include "core/ledger/event_finishing.hpp"

#include <utility>

namespace kestrel {

UsageEvent finishEvent(UsageEvent event, const AppSettings& settings, const PriceTable& prices) {
    if (!settings.storeProject) {
        event.projectDisplayName.reset();
    }
    return prices.applied(std::move(event), settings.billingMode);
}

}  // namespace kestrel

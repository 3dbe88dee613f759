#pragma once
// The one step between the readers and the ledger. Readers make events as their records say
// them; before a scan commits, each event gets the user's billing mode and its price, and loses
// what the privacy settings keep out of the ledger. (The session key is left out by the batch
// builder, which is told `storeSession`.)

#include "core/model/app_settings.hpp"
#include "core/model/usage_event.hpp"
#include "core/pricing/price_table.hpp"

namespace kestrel {

// `event` priced under `settings.billingMode` (a vendor-reported cost on the event or in its
// rawExtras is kept, see PriceTable::applied), without its project name when
// `settings.storeProject` is off.
UsageEvent finishEvent(UsageEvent event, const AppSettings& settings, const PriceTable& prices);

}  // namespace kestrel

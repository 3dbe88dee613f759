#pragma once
// How a source's scan status reads as the health of its integration instance.

#include "core/model/integration_enums.hpp"
#include "core/model/usage_enums.hpp"

namespace kestrel {

// notInstalled → notInstalled, unauthorized → permissionDenied, authorizedEmpty → detected
// (installed, nothing to import yet), healthy → healthy, formatChanged → formatChanged,
// readError → failed, paused → degraded (collection held back, not broken).
IntegrationHealthState healthState(SourceStatus status);

}  // namespace kestrel

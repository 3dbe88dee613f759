#include "core/integrations/source_health.hpp"

namespace kestrel {

IntegrationHealthState healthState(SourceStatus status) {
    using H = IntegrationHealthState;
    switch (status) {
        case SourceStatus::notInstalled:
            return H::notInstalled;
        case SourceStatus::unauthorized:
            return H::permissionDenied;
        case SourceStatus::authorizedEmpty:
            return H::detected;
        case SourceStatus::healthy:
            return H::healthy;
        case SourceStatus::formatChanged:
            return H::formatChanged;
        case SourceStatus::readError:
            return H::failed;
        case SourceStatus::paused:
            return H::degraded;
    }
    return H::failed;
}

}  // namespace kestrel

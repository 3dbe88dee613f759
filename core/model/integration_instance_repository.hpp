#pragma once
// Persistence of integration instances. The ledger store implements it over its
// integration_instances table; an in-memory version serves tests and tools without a ledger.

#include <optional>
#include <vector>

#include "core/model/integration_instance.hpp"

namespace kestrel {

class IntegrationInstanceRepository {
  public:
    virtual ~IntegrationInstanceRepository() = default;

    // Every stored instance, archived ones included.
    virtual std::vector<IntegrationInstance> loadAll() = 0;
    // The newest (by last update) instance of the plug-in that is not archived.
    virtual std::optional<IntegrationInstance> activeInstance(
        const IntegrationPluginID& plugin) = 0;
    // Inserts or replaces the instance with the same id; `now` becomes its update time (and its
    // creation time when it is new).
    virtual void save(const IntegrationInstance& instance, double now) = 0;
};

}  // namespace kestrel

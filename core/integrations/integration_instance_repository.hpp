#pragma once
// Persistence of integration instances. The ledger store implements it over its
// integration_instances table; the in-memory version serves tests and tools without a ledger.

#include <optional>
#include <vector>

#include "core/integrations/integration_instance.hpp"

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

class InMemoryIntegrationInstanceRepository final : public IntegrationInstanceRepository {
  public:
    std::vector<IntegrationInstance> loadAll() override;
    std::optional<IntegrationInstance> activeInstance(const IntegrationPluginID& plugin) override;
    void save(const IntegrationInstance& instance, double now) override;

    // How many saves were made, so tests can tell a write from a no-op.
    int saveCount() const { return saveCount_; }

  private:
    struct Row {
        IntegrationInstance instance;
        double createdAt = 0;
        double updatedAt = 0;
        long sequence = 0;  // breaks ties between equal update times: the later save wins
    };
    std::vector<Row> rows_;
    long nextSequence_ = 0;
    int saveCount_ = 0;
};

}  // namespace kestrel

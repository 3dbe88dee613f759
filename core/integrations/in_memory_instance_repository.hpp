#pragma once
// Integration instances kept in memory, for tests and tools that run without a ledger.

#include <optional>
#include <vector>

#include "core/model/integration_instance_repository.hpp"

namespace kestrel {

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

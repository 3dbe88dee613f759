#include "core/integrations/in_memory_instance_repository.hpp"

#include <algorithm>

namespace kestrel {

std::vector<IntegrationInstance> InMemoryIntegrationInstanceRepository::loadAll() {
    std::vector<IntegrationInstance> out;
    out.reserve(rows_.size());
    for (const auto& row : rows_) {
        out.push_back(row.instance);
    }
    return out;
}

std::optional<IntegrationInstance> InMemoryIntegrationInstanceRepository::activeInstance(
    const IntegrationPluginID& plugin) {
    const Row* best = nullptr;
    for (const auto& row : rows_) {
        if (row.instance.pluginID != plugin || row.instance.archivedAt) {
            continue;
        }
        if (best == nullptr || row.updatedAt > best->updatedAt ||
            (row.updatedAt == best->updatedAt && row.sequence > best->sequence)) {
            best = &row;
        }
    }
    return best ? std::optional(best->instance) : std::nullopt;
}

void InMemoryIntegrationInstanceRepository::save(const IntegrationInstance& instance, double now) {
    ++saveCount_;
    auto it =
        std::ranges::find_if(rows_, [&](const Row& r) { return r.instance.id == instance.id; });
    if (it == rows_.end()) {
        rows_.push_back({instance, now, now, nextSequence_++});
    } else {
        it->instance = instance;
        it->updatedAt = now;
        it->sequence = nextSequence_++;
    }
}

}  // namespace kestrel

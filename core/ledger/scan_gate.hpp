#pragma once
// What decides which agents a scan may read, and hears how each source's scan went: the
// integration instances. An ingestor without one reads every source (tools, benchmarks).

#include <filesystem>
#include <set>

#include "core/ledger/scan_progress.hpp"
#include "core/model/agent_source.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel {

class ScanGate {
  public:
    virtual ~ScanGate() = default;

    // Before a scan of every source: bring what is known of the installed agents up to date.
    virtual void beforeFullScan(const std::filesystem::path& home, double now,
                                const EnvironmentLookup& env) = 0;
    // The sources whose local records may be read now.
    virtual std::set<AgentSource> importableSources() = 0;
    // After each source's part of a scan, with what it came to.
    virtual void sourceScanned(const SourceScanReport& report, double now) = 0;
};

}  // namespace kestrel

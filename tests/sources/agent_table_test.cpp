#include "core/sources/agent_table.hpp"

#include <gtest/gtest.h>

#include <string>

#include "core/sources/source_readers.hpp"

namespace kestrel {
namespace {

// Everything per agent is looked up by position, so each source needs exactly its own row,
// in declaration order; the identity table in the model is held to the same.
TEST(AgentTable, HasOneRowPerSourceInDeclarationOrder) {
    const auto sources = allAgentSources();
    const auto rows = AgentTable::rows();
    ASSERT_EQ(rows.size(), sources.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(std::string(rawValue(sources[i])));
        EXPECT_EQ(rows[i].source, sources[i]);
        EXPECT_EQ(&AgentTable::row(sources[i]), &rows[i]);
        EXPECT_EQ(agentIdentity(sources[i]).source, sources[i]);
        // An agent read over the network keeps nothing on disk and has no reader.
        if (agentIdentity(sources[i]).accountOnly) {
            EXPECT_EQ(rows[i].roots, nullptr);
            EXPECT_EQ(rows[i].reader, nullptr);
            EXPECT_EQ(rows[i].format, AgentDataFormat::accountAPI);
        } else {
            EXPECT_NE(rows[i].roots, nullptr);
        }
        // A default-model hook means nothing without a reader to hand the model to.
        if (rows[i].defaultModel != nullptr) {
            EXPECT_NE(rows[i].reader, nullptr);
        }
    }
}

}  // namespace
}  // namespace kestrel

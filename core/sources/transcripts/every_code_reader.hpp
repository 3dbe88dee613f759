#pragma once
// Every Code, a fork of Codex, writes Codex's session rollouts below its own home (~/.code or
// CODE_HOME), with token reports wrapped in an "event" envelope. The Codex parser reads both
// envelopes; this reader runs it under the fork's own source, so the events, their identities,
// the checkpoints and any rate-limit reading belong to Every Code and never to Codex.

#include "core/sources/source_readers.hpp"

namespace kestrel::EveryCodeReader {

SourceReader reader();

}  // namespace kestrel::EveryCodeReader

#pragma once
// `kestrel settings`: every setting with its value; `kestrel settings set FIELD VALUE` changes
// one (field names as stored: storeProject, billingMode, language, ...); `kestrel settings forget
// projects|sessions` removes the project names or session keys already in the ledger.

#include <string>

#include "cli/command_context.hpp"

namespace kestrel::cli {

// A table of field and value, or with `json` one object of field -> value (null when unset).
int runSettings(CommandContext& ctx, const std::string& language, bool json);

// Changes one setting. An unknown field, a setting Kestrel keeps itself or a value the field does
// not take is exit 2, naming what is allowed. Says what the change set off (a repricing, usage
// already stored with a project name or session key).
int runSettingsSet(CommandContext& ctx, const std::string& field, const std::string& value,
                   const std::string& language, bool json);

// `what` is "projects" or "sessions".
int runSettingsForget(CommandContext& ctx, const std::string& what, const std::string& language,
                      bool json);

}  // namespace kestrel::cli

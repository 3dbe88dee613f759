#pragma once
// Where a run of Kestrel reads and writes, chosen the same way by every front end: the home
// folder from an explicit choice, else $KESTREL_HOME, else $HOME; the ledger's folder from an
// explicit choice, else $KESTREL_SUPPORT_DIR, else the platform's data folder.

#include <expected>
#include <string>

#include "core/app/app_session.hpp"

namespace kestrel {

struct AppPathsError {
    enum class Kind { noHome, homeNotAFolder };
    Kind kind = Kind::noHome;
    std::string home;  // the folder chosen, for homeNotAFolder
};

// `homeChoice` and `supportChoice` are what the user passed (empty: none); `processEnv` is the
// process's environment. The agents' own folder variables (CLAUDE_CONFIG_DIR, ...) are honoured
// only when the home is the real one, so that a run on a demo or test folder never reads the
// user's data. Both folders come back absolute.
std::expected<AppPaths, AppPathsError> resolveAppPaths(const std::string& homeChoice,
                                                       const std::string& supportChoice,
                                                       const EnvironmentLookup& processEnv);

}  // namespace kestrel

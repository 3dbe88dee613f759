#include "core/app/app_paths.hpp"

#include <system_error>

namespace kestrel {
namespace {

std::optional<std::string> nonEmpty(const EnvironmentLookup& env, std::string_view name) {
    auto value = env(name);
    return value && !value->empty() ? value : std::nullopt;
}

}  // namespace

std::expected<AppPaths, AppPathsError> resolveAppPaths(const std::string& homeChoice,
                                                       const std::string& supportChoice,
                                                       const EnvironmentLookup& processEnv) {
    const auto realHome = nonEmpty(processEnv, "HOME");
    const std::string chosen = !homeChoice.empty()
                                   ? homeChoice
                                   : nonEmpty(processEnv, "KESTREL_HOME")
                                         .value_or(realHome.value_or(""));
    if (chosen.empty()) {
        return std::unexpected(AppPathsError{AppPathsError::Kind::noHome, {}});
    }
    std::error_code ec;
    if (!std::filesystem::is_directory(chosen, ec)) {
        return std::unexpected(AppPathsError{AppPathsError::Kind::homeNotAFolder, chosen});
    }
    AppPaths paths;
    paths.home = std::filesystem::absolute(chosen, ec).lexically_normal();
    paths.env = realHome && chosen == *realHome ? processEnv : emptyEnvironment();
    // The support folder belongs to the user, not to the home being read.
    const std::filesystem::path support =
        !supportChoice.empty()
            ? std::filesystem::path(supportChoice)
            : UsageStore::supportDirectoryURL(
                  processEnv, realHome ? std::filesystem::path(*realHome) : paths.home);
    paths.supportDir = std::filesystem::absolute(support, ec).lexically_normal();
    return paths;
}

}  // namespace kestrel

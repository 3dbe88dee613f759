#include "cli/cli.hpp"

namespace kestrel::cli {

int run(const std::vector<std::string>&, std::ostream&, std::ostream&) { return kExitOK; }

}  // namespace kestrel::cli

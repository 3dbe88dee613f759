#include <iostream>

#include "cli/cli.hpp"

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    return kestrel::cli::run(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}

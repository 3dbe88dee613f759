#pragma once
// The pages of the main window, in navigation order.

#include <vector>

#include "app/page.hpp"

namespace kestrel::desktop {

// New pages for `host`, unparented (the window takes them).
std::vector<Page*> createPages(PageHost& host);

}  // namespace kestrel::desktop

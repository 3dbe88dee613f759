#include "app/pages/page_list.hpp"

#include "app/pages/overview_page.hpp"

namespace kestrel::desktop {

std::vector<Page*> createPages(PageHost& host) {
    // The other pages (events, accounts, prices, integrations, settings) join this list in
    // navigation order.
    return {new OverviewPage(host)};
}

}  // namespace kestrel::desktop

#include "app/pages/page_list.hpp"

#include "app/pages/accounts_page.hpp"
#include "app/pages/events_page.hpp"
#include "app/pages/integrations_page.hpp"
#include "app/pages/overview_page.hpp"
#include "app/pages/prices_page.hpp"
#include "app/pages/settings_page.hpp"

namespace kestrel::desktop {

std::vector<Page*> createPages(PageHost& host) {
    // In navigation order. The settings page's language and theme reach the window through the
    // session's settings listener, like any other change.
    return {new OverviewPage(host),     new EventsPage(host),   new AccountsPage(host),
            new PricesPage(host),       new IntegrationsPage(host), new SettingsPage(host)};
}

}  // namespace kestrel::desktop

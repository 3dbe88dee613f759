#include "app/notifications/notification_text.hpp"

#include <QLocale>

#include "app/figures.hpp"
#include "app/ui_text.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel::desktop {

NotificationMessage notificationMessage(const UiText& text, const DisplayChoices& display,
                                        const Notification& n, double now) {
    NotificationMessage m;
    const std::string locale = display.locale();
    switch (n.kind) {
        case NotificationKind::quotaWarning:
        case NotificationKind::quotaExhausted: {
            const std::string agent = n.source ? std::string(displayName(*n.source)) : std::string();
            const std::string window = text("quota.window." + std::string(rawValue(n.window.kind))).toStdString();
            const std::string percent =
                QString::number(n.window.usedPercent.value_or(0), 'f', 0).toStdString() + "%";
            const bool exhausted = n.kind == NotificationKind::quotaExhausted;
            m.summary = text(exhausted ? "desktop.notify.quotaExhausted.title"
                                       : "desktop.notify.quotaWarning.title",
                             {{"agent", agent}, {"window", window}});
            const std::string resets =
                n.window.resetsAt && *n.window.resetsAt > now
                    ? text("quota.resetsIn", {{"wait", waitText(*n.window.resetsAt - now).toStdString()}})
                          .toStdString()
                    : std::string();
            m.body = text("desktop.notify.quota.body",
                          {{"percent", percent}, {"window", window}, {"plan", n.planLabel},
                           {"resets", resets}});
            m.urgent = exhausted;
            break;
        }
        case NotificationKind::dailyBudget:
        case NotificationKind::monthlyBudget: {
            const bool daily = n.kind == NotificationKind::dailyBudget;
            m.summary = text(daily ? "desktop.notify.dailyBudget.title"
                                   : "desktop.notify.monthlyBudget.title");
            m.body = text("desktop.notify.budget.body",
                          {{"spent", formatCNY(n.spentFen, locale)},
                           {"budget", formatCNY(n.budgetFen, locale)}});
            break;
        }
        case NotificationKind::firstScan:
            m.summary = text("desktop.notify.firstScan.title");
            m.body = text("desktop.notify.firstScan.body",
                          {{"events", QLocale(QString::fromStdString(locale))
                                          .toString(static_cast<qlonglong>(n.events))
                                          .toStdString()}});
            break;
    }
    return m;
}

NotificationMessage notificationMessage(const UiText& text, const ActivityNotice& n) {
    NotificationMessage m;
    const std::string project =
        n.projectDisplayName ? text("live.inProject", {{"project", *n.projectDisplayName}}).toStdString()
                             : std::string();
    m.summary = QString::fromStdString(std::string(displayName(n.source)));
    m.body = text("live.notice." + std::string(rawValue(n.kind)),
                  {{"agent", std::string(displayName(n.source))},
                   {"project", project},
                   {"elapsed", waitText(n.elapsed).toStdString()}});
    if (n.hint && !n.hint->empty()) {
        m.body += QStringLiteral("\n") + QString::fromStdString(*n.hint);
    }
    m.urgent = n.kind == ActivityNoticeKind::needsApproval || n.kind == ActivityNoticeKind::needsAnswer;
    return m;
}

}  // namespace kestrel::desktop

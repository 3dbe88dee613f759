#pragma once
// The words of a desktop notification: a summary line and a body, in the current language.

#include <QString>

#include "core/app/display_choices.hpp"
#include "core/app/notification_policy.hpp"

namespace kestrel::desktop {

class UiText;

struct NotificationMessage {
    QString summary;
    QString body;
    bool urgent = false;  // approval, a question, an exhausted quota: the user is needed

    bool operator==(const NotificationMessage&) const = default;
};

NotificationMessage notificationMessage(const UiText& text, const DisplayChoices& display,
                                        const Notification& n, double now);
NotificationMessage notificationMessage(const UiText& text, const ActivityNotice& notice);

}  // namespace kestrel::desktop

#pragma once
// Every agent Kestrel knows, grouped as enabled, detected and not installed: switching an agent
// on or off, its capabilities (each with the permissions it needs) and permissions, the presets
// for all agents at once, and the live-activity hooks per agent with their health. Hook installs
// write the agents' configuration files, so they run in the background.

#include <QPointer>
#include <optional>

#include "app/page.hpp"
#include "core/app/integration_status.hpp"
#include "core/integrations/hook_agent.hpp"

class QCheckBox;
class QLabel;
class QPushButton;
class QVBoxLayout;

namespace kestrel {
class HookInstaller;
}

namespace kestrel::desktop {

class IntegrationsPage : public Page {
    Q_OBJECT

  public:
    explicit IntegrationsPage(PageHost& host, QWidget* parent = nullptr);
    ~IntegrationsPage() override;

    QString pageId() const override { return QStringLiteral("integrations"); }
    QString title() const override;
    void reload() override;
    void retranslate() override;

    const IntegrationStatus& status() const { return status_; }

    void setEnabled(AgentSource source, bool enabled);
    void setCapability(AgentSource source, IntegrationCapability capability, bool on);
    void setPermission(AgentSource source, IntegrationPermission permission, bool granted);
    void applyPreset(IntegrationBulkPreset preset);
    // Installs or removes the agent's hooks in the background; `hookFinished` tells how it went.
    void setHooks(HookAgent agent, bool install);
    // Where the hook files come from (the resources folder); for tests and installed builds.
    void setHookResources(std::filesystem::path folder);

  signals:
    void changed(const QString& message);
    void hookFinished(bool ok, const QString& message);

  private:
    void rebuild();
    const IntegrationStatusRow* rowOf(AgentSource source) const;
    void report(const QString& message);
    HookInstaller installer();

    const UiText& text_;
    IntegrationStatus status_;
    std::filesystem::path resources_;
    QVBoxLayout* list_ = nullptr;
    QLabel* presetsLabel_ = nullptr;
    QPushButton* recommended_ = nullptr;
    QPushButton* everything_ = nullptr;
    QPushButton* disableAll_ = nullptr;
    QLabel* status_label_ = nullptr;
};

}  // namespace kestrel::desktop

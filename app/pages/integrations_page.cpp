#include "app/pages/integrations_page.hpp"

#include <QCheckBox>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>
#include <expected>
#include <memory>

#include "app/pages/page_format.hpp"
#include "app/ui_text.hpp"
#include "core/integrations/hook_installer.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel::desktop {
namespace {

// Pulses older than this make a hook stale, as `kestrel hooks status` judges it.
constexpr double kStaleAfterSeconds = 30 * 60;

std::string groupKey(IntegrationListGroup group) {
    return "pages.integrations.group." + std::string(rawValue(group));
}

}  // namespace

IntegrationsPage::IntegrationsPage(PageHost& host, QWidget* parent)
    : Page(host, parent), text_(host.text()), resources_(KESTREL_RESOURCE_DIR) {
    if (auto dir = host.session().paths().env("KESTREL_RESOURCE_DIR"); dir && !dir->empty()) {
        resources_ = *dir;
    }
    presetsLabel_ = new QLabel(this);
    recommended_ = new QPushButton(this);
    recommended_->setObjectName(QStringLiteral("presetRecommended"));
    everything_ = new QPushButton(this);
    everything_->setObjectName(QStringLiteral("presetAll"));
    disableAll_ = new QPushButton(this);
    disableAll_->setObjectName(QStringLiteral("presetDisabled"));
    auto* presets = new QHBoxLayout;
    presets->addWidget(presetsLabel_);
    presets->addWidget(recommended_);
    presets->addWidget(everything_);
    presets->addWidget(disableAll_);
    presets->addStretch(1);

    auto* content = new QWidget;
    list_ = new QVBoxLayout(content);
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(content);
    status_label_ = new QLabel(this);
    status_label_->setObjectName(QStringLiteral("status"));
    status_label_->setWordWrap(true);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(presets);
    layout->addWidget(scroll, 1);
    layout->addWidget(status_label_);

    connect(recommended_, &QPushButton::clicked, this,
            [this] { applyPreset(IntegrationBulkPreset::recommended); });
    connect(everything_, &QPushButton::clicked, this,
            [this] { applyPreset(IntegrationBulkPreset::allIncludingNetwork); });
    connect(disableAll_, &QPushButton::clicked, this,
            [this] { applyPreset(IntegrationBulkPreset::disabled); });

    retranslate();
}

IntegrationsPage::~IntegrationsPage() = default;

QString IntegrationsPage::title() const {
    return text_("pages.integrations.title");
}

void IntegrationsPage::setHookResources(std::filesystem::path folder) {
    resources_ = std::move(folder);
}

HookInstaller IntegrationsPage::installer() {
    auto& session = host().session();
    // Hooks report project names only when the ledger may keep them.
    return HookInstaller(session.paths().home, session.paths().supportDir,
                         session.settings().storeProject, resources_, session.paths().env);
}

void IntegrationsPage::reload() {
    status_ = integrationStatus(host().session());
    rebuild();
}

void IntegrationsPage::retranslate() {
    presetsLabel_->setText(text_("pages.integrations.presets"));
    recommended_->setText(text_("pages.integrations.preset.recommended"));
    everything_->setText(text_("pages.integrations.preset.all"));
    everything_->setToolTip(text_("pages.integrations.preset.allHint"));
    disableAll_->setText(text_("pages.integrations.preset.disabled"));
    reload();
}

const IntegrationStatusRow* IntegrationsPage::rowOf(AgentSource source) const {
    for (const auto& row : status_.rows) {
        if (row.plugin->descriptor.legacySource == source) {
            return &row;
        }
    }
    return nullptr;
}

void IntegrationsPage::report(const QString& message) {
    status_label_->setText(message);
    emit changed(message);
}

void IntegrationsPage::rebuild() {
    while (auto* item = list_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    const auto& t = text_;
    std::optional<HookInstaller> hooks;
    std::vector<HookPulseStamp> pulses;
    const double now = epochNow();
    try {
        hooks.emplace(installer());
        pulses = readHookPulseStamps(hooks->liveDirectory(), now);
    } catch (const std::exception&) {
        hooks.reset();  // no hooks section when the installer cannot be set up
    }

    std::optional<IntegrationListGroup> group;
    for (const auto& row : status_.rows) {
        const auto& descriptor = row.plugin->descriptor;
        const AgentSource source = descriptor.legacySource;
        if (row.group != group) {
            group = row.group;
            auto* heading = new QLabel(QStringLiteral("<h3>%1</h3>").arg(t(groupKey(row.group))));
            heading->setObjectName(QStringLiteral("group"));
            list_->addWidget(heading);
        }
        auto* card = new QFrame;
        card->setObjectName(QStringLiteral("agent"));
        card->setProperty("source", QString::fromUtf8(rawValue(source).data()));
        card->setFrameShape(QFrame::StyledPanel);
        auto* grid = new QGridLayout(card);

        auto* enabled = new QCheckBox(QString::fromStdString(descriptor.displayName));
        enabled->setObjectName(QStringLiteral("enabled"));
        enabled->setChecked(row.instance.isEnabled());
        connect(enabled, &QCheckBox::toggled, this,
                [this, source](bool on) { setEnabled(source, on); });
        grid->addWidget(enabled, 0, 0);
        QStringList roots;
        for (const auto& root : row.installation.installedRoots) {
            roots << QString::fromStdString(root.string());
        }
        auto* where = new QLabel(roots.isEmpty() ? t("pages.integrations.notFound")
                                                 : roots.join(QStringLiteral(", ")));
        where->setObjectName(QStringLiteral("roots"));
        where->setWordWrap(true);
        grid->addWidget(where, 0, 1, 1, 2);

        // Capabilities, each with the permissions it needs.
        auto* caps = new QHBoxLayout;
        caps->addWidget(new QLabel(t("pages.integrations.capabilities")));
        std::set<IntegrationPermission> needed;
        for (auto capability : descriptor.capabilities()) {
            if (capability == IntegrationCapability::hookManagement) {
                continue;  // hooks are installed below, not switched
            }
            const auto permissions = descriptor.requiredPermissions(capability);
            needed.insert(permissions.begin(), permissions.end());
            auto* box = new QCheckBox(t("pages.integrations.capability." +
                                        std::string(rawValue(capability))));
            box->setObjectName(QStringLiteral("capability-") +
                               QString::fromUtf8(rawValue(capability).data()));
            box->setChecked(row.instance.hasEnabled(capability));
            box->setEnabled(row.instance.isEnabled());
            connect(box, &QCheckBox::toggled, this, [this, source, capability](bool on) {
                setCapability(source, capability, on);
            });
            caps->addWidget(box);
        }
        caps->addStretch(1);
        grid->addLayout(caps, 1, 0, 1, 3);
        auto* perms = new QHBoxLayout;
        perms->addWidget(new QLabel(t("pages.integrations.permissions")));
        for (auto permission : needed) {
            auto* box = new QCheckBox(t("pages.integrations.permission." +
                                        std::string(rawValue(permission))));
            box->setObjectName(QStringLiteral("permission-") +
                               QString::fromUtf8(rawValue(permission).data()));
            box->setChecked(row.instance.grantedPermissions.contains(permission));
            box->setEnabled(row.instance.isEnabled());
            connect(box, &QCheckBox::toggled, this, [this, source, permission](bool on) {
                setPermission(source, permission, on);
            });
            perms->addWidget(box);
        }
        perms->addStretch(1);
        grid->addLayout(perms, 2, 0, 1, 3);

        // Hooks and their health.
        const auto agent = hookAgent(source);
        if (hooks && agent) {
            const auto health = hooks->health(*agent, pulses, now, kStaleAfterSeconds);
            const bool installed = hooks->status(*agent).value_or(false);
            QString line =
                t("pages.integrations.hooks") + QStringLiteral(": ") +
                t("hooks.status.health." + std::string(rawValue(health.state)));
            if (health.lastEmissionAt) {
                line += QStringLiteral(" · ") +
                        t("hooks.status.ago",
                          {{"wait", intervalText(now - *health.lastEmissionAt).toStdString()}});
            }
            if (health.detail) {
                line += QStringLiteral(" · ") + QString::fromStdString(*health.detail);
            }
            auto* healthLabel = new QLabel(line);
            healthLabel->setObjectName(QStringLiteral("hookHealth"));
            healthLabel->setWordWrap(true);
            auto* install = new QPushButton(installed ? t("pages.integrations.reinstallHooks")
                                                      : t("pages.integrations.installHooks"));
            install->setObjectName(QStringLiteral("installHooks"));
            auto* uninstall = new QPushButton(t("pages.integrations.uninstallHooks"));
            uninstall->setObjectName(QStringLiteral("uninstallHooks"));
            uninstall->setEnabled(installed);
            const HookAgent a = *agent;
            connect(install, &QPushButton::clicked, this, [this, a] { setHooks(a, true); });
            connect(uninstall, &QPushButton::clicked, this, [this, a] { setHooks(a, false); });
            grid->addWidget(healthLabel, 3, 0);
            grid->addWidget(install, 3, 1);
            grid->addWidget(uninstall, 3, 2);
        }
        grid->setColumnStretch(0, 1);
        list_->addWidget(card);
    }
    list_->addStretch(1);
}

void IntegrationsPage::setEnabled(AgentSource source, bool enabled) {
    const auto* row = rowOf(source);
    if (!row) {
        return;
    }
    const auto result = setIntegrationEnabled(host().session(), *row->plugin, enabled);
    const std::string name = row->plugin->descriptor.displayName;
    report(!result ? text_("pages.integrations.failed", {{"agent", name}})
                   : text_(enabled ? "pages.integrations.enabled" : "pages.integrations.disabled",
                           {{"agent", name}}));
    // Rebuilt after the toggle's signal has returned, since the toggled box goes with it.
    QMetaObject::invokeMethod(this, [this] { reload(); }, Qt::QueuedConnection);
    status_ = integrationStatus(host().session());
}

void IntegrationsPage::setCapability(AgentSource source, IntegrationCapability capability,
                                     bool on) {
    const auto* row = rowOf(source);
    if (!row) {
        return;
    }
    const auto result = host().session().integrations().setCapabilityAuthorization(
        capability, on, row->instance.id, epochNow());
    const std::string name = row->plugin->descriptor.displayName;
    report(result ? text_("pages.integrations.saved", {{"agent", name}})
                  : text_("pages.integrations.failed", {{"agent", name}}));
    status_ = integrationStatus(host().session());
    QMetaObject::invokeMethod(this, [this] { rebuild(); }, Qt::QueuedConnection);
}

void IntegrationsPage::setPermission(AgentSource source, IntegrationPermission permission,
                                     bool granted) {
    const auto* row = rowOf(source);
    if (!row) {
        return;
    }
    const auto result = host().session().integrations().setPermission(permission, granted,
                                                                      row->instance.id, epochNow());
    const std::string name = row->plugin->descriptor.displayName;
    report(result ? text_("pages.integrations.saved", {{"agent", name}})
                  : text_("pages.integrations.failed", {{"agent", name}}));
    status_ = integrationStatus(host().session());
    QMetaObject::invokeMethod(this, [this] { rebuild(); }, Qt::QueuedConnection);
}

void IntegrationsPage::applyPreset(IntegrationBulkPreset preset) {
    const auto outcome = applyIntegrationPreset(host().session(), preset);
    if (!outcome.anyScanned) {
        report(text_("pages.integrations.presetNoScan"));
    } else {
        report(text_("pages.integrations.presetApplied",
                     {{"count", std::to_string(outcome.changed.size())}}));
    }
    reload();
}

void IntegrationsPage::setHooks(HookAgent agent, bool install) {
    auto result = std::make_shared<std::expected<HookChangeReport, HookInstallError>>(
        std::unexpected(HookInstallError{}));
    auto worker = std::make_shared<HookInstaller>(installer());
    host().runInBackground(
        [worker, result, agent, install] {
            *result = install ? worker->install(agent) : worker->uninstall(agent);
        },
        [self = QPointer<IntegrationsPage>(this), result, agent, install] {
            if (!self) {
                return;
            }
            const auto& t = self->text_;
            const std::string name(displayName(agentSource(agent)));
            QString message;
            if (*result) {
                message = install ? t("hooks.reopenAndTrust", {{"agent", name}})
                                  : t("pages.integrations.hooksRemoved", {{"agent", name}});
            } else {
                message = t("hooks.installFailed", {{"agent", name}}) + QLatin1Char(' ') +
                          QString::fromStdString(result->error().path.string() + ": " +
                                                 std::string(rawValue(result->error().code)) +
                                                 (result->error().detail.empty()
                                                      ? std::string()
                                                      : ": " + result->error().detail));
            }
            self->report(message);
            self->reload();
            emit self->hookFinished(result->has_value(), message);
        });
}

}  // namespace kestrel::desktop

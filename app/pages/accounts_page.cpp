#include "app/pages/accounts_page.hpp"

#include <QComboBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QTableWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <expected>
#include <set>

#include "app/pages/page_format.hpp"
#include "app/ui_text.hpp"
#include "core/plans/key_providers.hpp"
#include "core/plans/key_store.hpp"
#include "core/plans/plan_salt.hpp"
#include "core/plans/probe_error.hpp"

namespace kestrel::desktop {

namespace {

QString amountText(double value) {
    return std::fabs(value - std::round(value)) < 1e-9 ? QString::number(value, 'f', 0)
                                                       : QString::number(value, 'f', 2);
}

QString accountTitle(const QuotaAccountRow& row) {
    if (row.source) {
        return qstr(displayName(*row.source));
    }
    if (row.snapshot && row.snapshot->identity.displayName) {
        return QString::fromStdString(*row.snapshot->identity.displayName + " (" + row.accountID +
                                      ")");
    }
    return QString::fromStdString(row.accountID);
}

// Why the last refresh of the account gave no new reading; empty when it did.
QString refreshText(const UiText& t, const QuotaAccountRow& row, double now) {
    if (row.skipped) {
        if (*row.skipped == QuotaSkipReason::noProbe) {
            return t("quota.skip.noProbe");
        }
        return row.source ? t("quota.skip.quotaOff", {{"agent", std::string(rawValue(*row.source))}})
                          : t("quota.skip.planQuotaOff");
    }
    if (!row.refresh) {
        return {};
    }
    using S = QuotaRefreshOutcome::Status;
    const auto& o = *row.refresh;
    switch (o.status) {
        case S::refreshed:
        case S::superseded:
            return {};
        case S::notSignedIn:
            return t("quota.refresh.notSignedIn");
        case S::noKey:
            return t("quota.refresh.noKey");
        case S::unsupported:
            return t("quota.skip.noProbe");
        case S::backingOff:
            return t("quota.refresh.backingOff",
                     {{"wait", intervalText(o.retryAt.value_or(now) - now).toStdString()}});
        case S::failed:
            break;
    }
    if (!o.error) {
        return {};
    }
    return t(std::string("quota.error.") + std::string(ProbeErrors::kindName(o.error->kind)),
             {{"detail", o.error->detail}});
}

}  // namespace

AccountsPage::AccountsPage(PageHost& host, QWidget* parent, KeyStoreOpener openKeys)
    : Page(host, parent),
      text_(host.text()),
      keys_(std::make_shared<Keys>()),
      refresher_(std::make_unique<QuotaRefresher>()),
      tokens_(std::make_unique<TokenCache>()) {
    auto* content = new QWidget;
    auto* column = new QVBoxLayout(content);

    // Quota windows and balances.
    quotaBox_ = new QGroupBox;
    auto* quotaLayout = new QVBoxLayout(quotaBox_);
    quotaList_ = new QVBoxLayout;
    refresh_ = new QPushButton;
    refresh_->setObjectName(QStringLiteral("refreshQuota"));
    auto* quotaButtons = new QHBoxLayout;
    quotaButtons->addStretch(1);
    quotaButtons->addWidget(refresh_);
    quotaLayout->addLayout(quotaList_);
    quotaLayout->addLayout(quotaButtons);
    column->addWidget(quotaBox_);

    // Plan review.
    plansBox_ = new QGroupBox;
    auto* plansLayout = new QVBoxLayout(plansBox_);
    plansHeader_ = new QLabel;
    plansHeader_->setWordWrap(true);
    candidates_ = new QTableWidget(0, 7);
    candidates_->setObjectName(QStringLiteral("candidates"));
    candidates_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    candidates_->setSelectionBehavior(QAbstractItemView::SelectRows);
    candidates_->verticalHeader()->hide();
    candidates_->horizontalHeader()->setStretchLastSection(true);
    candidates_->setMinimumHeight(140);
    discover_ = new QPushButton;
    keep_ = new QPushButton;
    keep_->setObjectName(QStringLiteral("keep"));
    reject_ = new QPushButton;
    reject_->setObjectName(QStringLiteral("reject"));
    commit_ = new QPushButton;
    commit_->setObjectName(QStringLiteral("commit"));
    planStatus_ = new QLabel;
    planStatus_->setObjectName(QStringLiteral("planStatus"));
    planStatus_->setWordWrap(true);
    auto* planButtons = new QHBoxLayout;
    planButtons->addWidget(discover_);
    planButtons->addStretch(1);
    planButtons->addWidget(keep_);
    planButtons->addWidget(reject_);
    planButtons->addWidget(commit_);
    plansLayout->addWidget(plansHeader_);
    plansLayout->addWidget(candidates_);
    plansLayout->addLayout(planButtons);
    plansLayout->addWidget(planStatus_);
    column->addWidget(plansBox_);

    // API keys.
    keysBox_ = new QGroupBox;
    auto* keysLayout = new QVBoxLayout(keysBox_);
    provider_ = new QComboBox;
    provider_->setObjectName(QStringLiteral("provider"));
    for (const auto& name : keyProviders()) {
        provider_->addItem(QString::fromStdString(name));
    }
    secret_ = new QLineEdit;
    secret_->setObjectName(QStringLiteral("secret"));
    secret_->setEchoMode(QLineEdit::Password);
    storeKey_ = new QPushButton;
    storeKey_->setObjectName(QStringLiteral("storeKey"));
    removeKey_ = new QPushButton;
    removeKey_->setObjectName(QStringLiteral("removeKey"));
    auto* keyRow = new QHBoxLayout;
    keyRow->addWidget(provider_);
    keyRow->addWidget(secret_, 1);
    keyRow->addWidget(storeKey_);
    keyRow->addWidget(removeKey_);
    keyTable_ = new QTableWidget(0, 3);
    keyTable_->setObjectName(QStringLiteral("keys"));
    keyTable_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    keyTable_->verticalHeader()->hide();
    keyTable_->horizontalHeader()->setStretchLastSection(true);
    keyTable_->setMinimumHeight(100);
    keyStatus_ = new QLabel;
    keyStatus_->setObjectName(QStringLiteral("keyStatus"));
    keyStatus_->setWordWrap(true);
    keysLayout->addLayout(keyRow);
    keysLayout->addWidget(keyTable_);
    keysLayout->addWidget(keyStatus_);
    column->addWidget(keysBox_);
    column->addStretch(1);

    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(content);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);

    connect(refresh_, &QPushButton::clicked, this, [this] { refreshQuota(); });
    connect(discover_, &QPushButton::clicked, this, [this] { discover(); });
    const auto chooseSelected = [this](bool keep) {
        std::vector<std::string> ids;
        for (const auto& id : selectedCandidates()) {
            ids.push_back(id.toStdString());
        }
        if (!ids.empty()) {
            choose(ids, keep);
        }
    };
    connect(keep_, &QPushButton::clicked, this, [chooseSelected] { chooseSelected(true); });
    connect(reject_, &QPushButton::clicked, this, [chooseSelected] { chooseSelected(false); });
    connect(commit_, &QPushButton::clicked, this, [this] { commit(); });
    connect(storeKey_, &QPushButton::clicked, this,
            [this] { storeKey(provider_->currentText(), secret_->text()); });
    connect(secret_, &QLineEdit::returnPressed, this,
            [this] { storeKey(provider_->currentText(), secret_->text()); });
    connect(removeKey_, &QPushButton::clicked, this,
            [this] { removeKey(provider_->currentText()); });

    // The store is opened first on the worker; every later key job runs after it there.
    if (!openKeys) {
        openKeys = [](const std::filesystem::path& dir, const EnvironmentLookup& env) {
            return openKeyStore(dir, env);
        };
    }
    host.runInBackground(
        [keys = keys_, openKeys = std::move(openKeys), paths = host.session().paths()] {
            keys->store = openKeys(paths.supportDir, paths.env);
            if (keys->store == nullptr) {
                keys->store = makeFileKeyStore(paths.supportDir);
            }
        },
        [] {});

    retranslate();
    reload();
}

AccountsPage::~AccountsPage() = default;

QString AccountsPage::title() const {
    return text_("pages.accounts.title");
}

void AccountsPage::reload() {
    // Stored readings only: a refresh asks the network and waits for the user's "Refresh".
    quota_ = quotaReport(host().session(), {}, *refresher_, *tokens_);
    showQuota();
    listKeys();
    discover();
}

void AccountsPage::retranslate() {
    quotaBox_->setTitle(text_("pages.accounts.quota"));
    refresh_->setText(text_("pages.accounts.refresh"));
    plansBox_->setTitle(text_("pages.accounts.plans"));
    discover_->setText(text_("pages.accounts.discover"));
    keep_->setText(text_("pages.accounts.keep"));
    reject_->setText(text_("pages.accounts.reject"));
    commit_->setText(text_("pages.accounts.commit"));
    candidates_->setHorizontalHeaderLabels(
        {text_("plans.column.id"), text_("plans.column.plan"), text_("plans.column.source"),
         text_("plans.column.endpoint"), text_("plans.column.key"),
         text_("plans.column.validation"), text_("plans.column.choice")});
    keysBox_->setTitle(text_("pages.accounts.keys"));
    secret_->setPlaceholderText(text_("pages.accounts.keyHint"));
    storeKey_->setText(text_("pages.accounts.storeKey"));
    removeKey_->setText(text_("pages.accounts.removeKey"));
    keyTable_->setHorizontalHeaderLabels({text_("keys.column.provider"),
                                          text_("keys.column.fingerprint"),
                                          text_("keys.column.store")});
    showQuota();
    showReview();
}

void AccountsPage::showQuota() {
    while (auto* item = quotaList_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    const double now = quota_.now;
    if (quota_.rows.empty() ||
        std::none_of(quota_.rows.begin(), quota_.rows.end(),
                     [](const QuotaAccountRow& r) { return r.snapshot || r.refresh || r.skipped; })) {
        auto* none = new QLabel(text_("pages.accounts.noQuota"));
        none->setObjectName(QStringLiteral("noQuota"));
        none->setWordWrap(true);
        quotaList_->addWidget(none);
        return;
    }
    for (const auto& row : quota_.rows) {
        const QString problem = refreshText(text_, row, now);
        if (!row.snapshot && problem.isEmpty()) {
            continue;
        }
        auto* card = new QWidget;
        card->setObjectName(QStringLiteral("account"));
        card->setProperty("accountID", QString::fromStdString(row.accountID));
        auto* grid = new QGridLayout(card);
        grid->setContentsMargins(0, 4, 0, 4);
        QString head = QStringLiteral("<b>%1</b>").arg(accountTitle(row).toHtmlEscaped());
        if (row.snapshot) {
            const auto& s = *row.snapshot;
            if (!s.identity.planLabel.empty()) {
                head += QStringLiteral(" · ") + QString::fromStdString(s.identity.planLabel).toHtmlEscaped();
            }
            head += QStringLiteral(" · ") +
                    text_(std::string("quota.provenance.") + std::string(rawValue(s.provenance))) +
                    QStringLiteral(" · ") +
                    text_("quota.fetchedAgo", {{"wait", intervalText(now - s.fetchedAt).toStdString()}});
            if (s.stale) {
                head += QStringLiteral(" · <span style='color:#c0392b'>%1</span>")
                            .arg(text_("quota.stale"));
            }
        }
        auto* title = new QLabel(head);
        title->setObjectName(QStringLiteral("accountTitle"));
        grid->addWidget(title, 0, 0, 1, 3);
        int r = 1;
        if (row.snapshot) {
            for (const auto& w : row.snapshot->windows) {
                QString name = text_(std::string("quota.window.") + std::string(rawValue(w.kind)));
                if (w.scopeKey) {
                    name += QLatin1Char(' ') + QString::fromStdString(*w.scopeKey);
                } else if (w.kind == QuotaWindowKind::apiPrepaid && w.label) {
                    name += QLatin1Char(' ') + QString::fromStdString(*w.label);
                }
                grid->addWidget(new QLabel(name), r, 0);
                if (w.usedPercent) {
                    auto* bar = new QProgressBar;
                    bar->setObjectName(QStringLiteral("window"));
                    bar->setRange(0, 100);
                    bar->setValue(static_cast<int>(std::lround(std::clamp(*w.usedPercent, 0.0, 100.0))));
                    bar->setFormat(QStringLiteral("%1 %").arg(std::lround(*w.usedPercent)));
                    grid->addWidget(bar, r, 1);
                }
                QStringList facts;
                if (w.usedValue && w.limitValue) {
                    facts << amountText(*w.usedValue) + QStringLiteral(" / ") +
                                 amountText(*w.limitValue) +
                                 (w.currency ? QLatin1Char(' ') + QString::fromStdString(*w.currency)
                                             : QString());
                }
                if (w.remainingLabel) {
                    facts << text_("quota.remaining", {{"amount", *w.remainingLabel}});
                }
                if (w.resetsAt && *w.resetsAt > now) {
                    facts << text_("quota.resetsIn",
                                   {{"wait", intervalText(*w.resetsAt - now).toStdString()}});
                } else if (w.resetsAt) {
                    facts << text_("pages.accounts.hasReset",
                                   {{"wait", intervalText(now - *w.resetsAt).toStdString()}});
                }
                auto* factLabel = new QLabel(facts.join(QStringLiteral(" · ")));
                factLabel->setObjectName(QStringLiteral("windowFacts"));
                grid->addWidget(factLabel, r, 2);
                ++r;
            }
        }
        if (!problem.isEmpty()) {
            auto* note = new QLabel(problem);
            note->setObjectName(QStringLiteral("refreshNote"));
            note->setWordWrap(true);
            grid->addWidget(note, r, 0, 1, 3);
        }
        grid->setColumnStretch(1, 1);
        grid->setColumnStretch(2, 1);
        quotaList_->addWidget(card);
    }
}

void AccountsPage::refreshQuota() {
    auto& session = host().session();
    auto report = std::make_shared<QuotaReport>();
    refresh_->setEnabled(false);
    host().runInBackground(
        [&session, report, keys = keys_, refresher = refresher_.get(), tokens = tokens_.get()] {
            *report = quotaReport(session, {.refresh = true, .keys = keys->store.get()}, *refresher,
                                  *tokens);
        },
        [self = QPointer<AccountsPage>(this), report] {
            if (!self) {
                return;
            }
            self->refresh_->setEnabled(true);
            self->quota_ = std::move(*report);
            self->showQuota();
        });
}

void AccountsPage::showReview() {
    const auto& t = text_;
    plansHeader_->setText(review_.rows.empty()
                              ? t("plans.none")
                              : t("pages.accounts.plansHeader",
                                  {{"count", std::to_string(review_.rows.size())}}));
    candidates_->setRowCount(static_cast<int>(review_.rows.size()));
    int r = 0;
    for (const auto& row : review_.rows) {
        const auto& c = row.candidate;
        const QString cells[] = {
            QString::fromStdString(c.id),
            QString::fromStdString(c.family + " " + c.region + (c.isCurrent ? " *" : "")),
            QString::fromStdString(c.sourceDisplayName),
            QString::fromStdString(c.endpointBaseURL.value_or("-")),
            c.credentialFingerprint ? QString::fromStdString(*c.credentialFingerprint)
                                    : t("plans.resolution." + c.credentialResolution),
            t("plans.state." + c.validationState),
            !row.keep ? t("plans.choice.undecided")
                      : t(*row.keep ? "plans.choice.keep" : "plans.choice.reject")};
        for (int col = 0; col < 7; ++col) {
            candidates_->setItem(r, col, new QTableWidgetItem(cells[col]));
        }
        ++r;
    }
    candidates_->resizeColumnsToContents();
    const bool any = !review_.rows.empty();
    keep_->setEnabled(any);
    reject_->setEnabled(any);
    commit_->setEnabled(any);
}

QStringList AccountsPage::selectedCandidates() const {
    std::set<int> rows;
    for (const auto* item : candidates_->selectedItems()) {
        rows.insert(item->row());
    }
    QStringList ids;
    for (int row : rows) {
        ids << candidates_->item(row, 0)->text();
    }
    return ids;
}

void AccountsPage::setPlanStatus(const QString& message) {
    planStatus_->setText(message);
    emit planMessage(message);
}

void AccountsPage::discover() {
    auto& session = host().session();
    auto state = std::make_shared<std::expected<PlanReviewState, std::string>>();
    host().runInBackground([&session, state] { *state = discoverPlans(session); },
                           [self = QPointer<AccountsPage>(this), state] {
                               if (!self) {
                                   return;
                               }
                               if (!*state) {
                                   self->setPlanStatus(QString::fromStdString(state->error()));
                                   return;
                               }
                               self->review_ = std::move(**state);
                               self->showReview();
                           });
}

void AccountsPage::planAction(std::function<PlanFinish(AppSession&, KeyStore*)> action) {
    auto& session = host().session();
    auto finish = std::make_shared<PlanFinish>();
    auto state = std::make_shared<std::expected<PlanReviewState, std::string>>();
    host().runInBackground(
        [&session, action = std::move(action), finish, state, keys = keys_] {
            *finish = action(session, keys->store.get());
            *state = discoverPlans(session);
        },
        [self = QPointer<AccountsPage>(this), finish, state] {
            if (!self) {
                return;
            }
            if (*state) {
                self->review_ = std::move(**state);
                self->showReview();
            }
            if (*finish) {
                (*finish)(*self);
            }
        });
}

void AccountsPage::choose(const std::vector<std::string>& ids, bool keep) {
    planAction([ids, keep](AppSession& session, KeyStore* keys) -> PlanFinish {
        auto outcomes = choosePlans(session, ids, keep, {.keys = keys});
        return [outcomes = std::move(outcomes)](AccountsPage& page) {
            const auto& t = page.text_;
            if (!outcomes) {
                page.setPlanStatus(QString::fromStdString(outcomes.error()));
                return;
            }
            QStringList lines;
            using Status = PlanChoiceOutcome::Status;
            for (const auto& o : *outcomes) {
                const std::string agent = o.tool ? std::string(rawValue(*o.tool)) : std::string();
                switch (o.status) {
                    case Status::kept:
                        lines << t("plans.kept", {{"id", o.candidateID}});
                        break;
                    case Status::rejected:
                        lines << t("plans.rejected", {{"id", o.candidateID}});
                        break;
                    case Status::unknownCandidate:
                        lines << t("plans.unknown", {{"id", o.candidateID.substr(0, 40)}});
                        break;
                    case Status::quotaOff:
                        lines << t("plans.quotaOff", {{"id", o.candidateID}, {"agent", agent}});
                        break;
                    case Status::notValid:
                        lines << t("plans.notValid",
                                   {{"id", o.candidateID},
                                    {"state", t("plans.state." + std::string(rawValue(
                                                                     o.validation->state)))
                                                  .toStdString()}});
                        break;
                }
            }
            page.setPlanStatus(lines.join(QLatin1Char('\n')));
        };
    });
}

void AccountsPage::commit() {
    planAction([refresher = refresher_.get(), tokens = tokens_.get()](
                   AppSession& session, KeyStore* keys) -> PlanFinish {
        auto outcome = commitPlans(session, {.keys = keys});
        std::optional<QuotaReport> quota;
        if (outcome && !outcome->refusal && outcome->committed) {
            // Accounts kept in the review have quota readings of their own from now on.
            quota = quotaReport(session, {}, *refresher, *tokens);
        }
        return [outcome = std::move(outcome), quota = std::move(quota)](AccountsPage& page) {
            const auto& t = page.text_;
            if (!outcome) {
                page.setPlanStatus(QString::fromStdString(outcome.error()));
            } else if (outcome->refusal) {
                QString message = t(outcome->refusal->key);
                if (!outcome->refusal->candidateID.empty()) {
                    message += QStringLiteral(" (%1)").arg(
                        QString::fromStdString(outcome->refusal->candidateID));
                }
                page.setPlanStatus(message);
            } else if (outcome->committed) {
                page.setPlanStatus(t(
                    "plans.committed",
                    {{"accepted", std::to_string(outcome->committed->acceptedAccountIDs.size())},
                     {"rejected", std::to_string(outcome->committed->rejectedCandidateIDs.size())}}));
                if (quota) {
                    page.quota_ = *quota;
                    page.showQuota();
                }
            } else {
                page.setPlanStatus(t("plans.nothingToCommit"));
            }
        };
    });
}

AccountsPage::KeyRows AccountsPage::readKeyRows(KeyStore* keys, const std::filesystem::path& supportDir,
                                                const std::string& unreadable) {
    KeyRows rows;
    if (keys == nullptr) {
        return rows;
    }
    rows.backend = std::string(keys->backend());
    const auto names = keys->names();
    if (!names) {
        rows.problem = names.error().message;
        return rows;
    }
    const auto salt = PlanSalt::loadOrCreate(supportDir);
    for (const auto& name : *names) {
        const auto key = keys->get(name);
        std::string fingerprint = unreadable;
        if (salt && key && *key) {
            fingerprint = credentialFingerprint(*salt, **key);
        }
        rows.nameAndFingerprint.emplace_back(name, std::move(fingerprint));
    }
    return rows;
}

void AccountsPage::listKeys() {
    auto rows = std::make_shared<KeyRows>();
    host().runInBackground(
        [keys = keys_, rows, dir = host().session().paths().supportDir,
         unreadable = text_("keys.unreadable").toStdString()] {
            *rows = readKeyRows(keys->store.get(), dir, unreadable);
        },
        [self = QPointer<AccountsPage>(this), rows] {
            if (self) {
                self->showKeys(*rows);
            }
        });
}

void AccountsPage::showKeys(const KeyRows& rows) {
    keyTable_->setRowCount(0);
    if (!rows.problem.empty()) {
        setKeyStatus(QString::fromStdString(rows.problem));
        return;
    }
    for (const auto& [name, fingerprint] : rows.nameAndFingerprint) {
        const int r = keyTable_->rowCount();
        keyTable_->insertRow(r);
        keyTable_->setItem(r, 0, new QTableWidgetItem(QString::fromStdString(name)));
        keyTable_->setItem(r, 1, new QTableWidgetItem(QString::fromStdString(fingerprint)));
        keyTable_->setItem(r, 2, new QTableWidgetItem(QString::fromStdString(rows.backend)));
    }
    keyTable_->resizeColumnsToContents();
    removeKey_->setEnabled(!rows.nameAndFingerprint.empty());
}

void AccountsPage::setKeyStatus(const QString& message) {
    keyStatus_->setText(message);
    emit keyMessage(message);
}

void AccountsPage::storeKey(const QString& provider, const QString& secret) {
    const std::string name = provider.trimmed().toStdString();
    std::string key = secret.trimmed().toStdString();
    // The typed key leaves the widget at once, whatever happens next.
    secret_->clear();
    if (key.empty()) {
        setKeyStatus(text_("keys.empty"));
        return;
    }
    if (!isKeyProvider(name)) {
        setKeyStatus(text_("keys.unknownProvider",
                           {{"provider", name.substr(0, 40)}, {"accepted", keyProviderNames()}}));
        return;
    }
    // The key travels to the worker and is wiped there once stored; only its fingerprint and
    // the listing come back.
    struct Stored {
        std::string problem;
        std::string fingerprint;
        KeyRows rows;
    };
    auto stored = std::make_shared<Stored>();
    host().runInBackground(
        [keys = keys_, stored, name, key = std::move(key), dir = host().session().paths().supportDir,
         unreadable = text_("keys.unreadable").toStdString()]() mutable {
            const auto salt = PlanSalt::loadOrCreate(dir);
            if (!salt) {
                stored->problem = salt.error();
            } else if (auto set = keys->store->set(name, key); !set) {
                stored->problem = set.error().message;
            } else {
                stored->fingerprint = credentialFingerprint(*salt, key);
            }
            std::fill(key.begin(), key.end(), '\0');
            stored->rows = readKeyRows(keys->store.get(), dir, unreadable);
        },
        [self = QPointer<AccountsPage>(this), stored, name] {
            if (!self) {
                return;
            }
            if (!stored->problem.empty()) {
                self->setKeyStatus(QString::fromStdString(stored->problem));
                return;
            }
            self->showKeys(stored->rows);
            self->setKeyStatus(self->text_("keys.set.done", {{"provider", name},
                                                             {"fingerprint", stored->fingerprint},
                                                             {"store", stored->rows.backend}}));
        });
}

void AccountsPage::removeKey(const QString& provider) {
    const std::string name = provider.trimmed().toStdString();
    auto removed = std::make_shared<std::expected<bool, std::string>>(false);
    auto rows = std::make_shared<KeyRows>();
    host().runInBackground(
        [keys = keys_, removed, rows, name, dir = host().session().paths().supportDir,
         unreadable = text_("keys.unreadable").toStdString()] {
            if (auto r = keys->store->remove(name); r) {
                *removed = *r;
            } else {
                *removed = std::unexpected(r.error().message);
            }
            *rows = readKeyRows(keys->store.get(), dir, unreadable);
        },
        [self = QPointer<AccountsPage>(this), removed, rows, name] {
            if (!self) {
                return;
            }
            if (!*removed) {
                self->setKeyStatus(QString::fromStdString(removed->error()));
                return;
            }
            self->showKeys(*rows);
            self->setKeyStatus(self->text_(**removed ? "keys.rm.done" : "keys.rm.none",
                                           {{"provider", name}}));
        });
}

}  // namespace kestrel::desktop

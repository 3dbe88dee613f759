#include "app/main_window.hpp"

#include <QCloseEvent>
#include <QHBoxLayout>
#include <QStatusBar>
#include <QToolButton>
#include <QVBoxLayout>

#include "app/ui_text.hpp"

namespace kestrel::desktop {

MainWindow::MainWindow(const UiText& text, QWidget* parent) : QMainWindow(parent), text_(text) {
    auto* central = new QWidget(this);
    auto* column = new QVBoxLayout(central);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    banner_ = new QWidget(central);
    banner_->setObjectName(QStringLiteral("banner"));
    banner_->setAutoFillBackground(true);
    QPalette bannerPalette = banner_->palette();
    bannerPalette.setColor(QPalette::Window, QColor(0xff, 0xf4, 0xce));
    bannerPalette.setColor(QPalette::WindowText, QColor(0x3b, 0x2f, 0x00));
    banner_->setPalette(bannerPalette);
    auto* bannerRow = new QHBoxLayout(banner_);
    bannerLabel_ = new QLabel(banner_);
    bannerLabel_->setWordWrap(true);
    bannerLabel_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    bannerClose_ = new QToolButton(banner_);
    bannerClose_->setText(QStringLiteral("✕"));
    bannerClose_->setAutoRaise(true);
    connect(bannerClose_, &QToolButton::clicked, this, [this] {
        banner_->hide();
        emit bannerDismissed();
    });
    bannerRow->addWidget(bannerLabel_, 1);
    bannerRow->addWidget(bannerClose_, 0, Qt::AlignTop);
    banner_->hide();
    column->addWidget(banner_);

    auto* row = new QHBoxLayout();
    row->setContentsMargins(0, 0, 0, 0);
    navigation_ = new QListWidget(central);
    navigation_->setObjectName(QStringLiteral("navigation"));
    navigation_->setFixedWidth(170);
    navigation_->setFrameShape(QFrame::NoFrame);
    QFont navFont = navigation_->font();
    navFont.setPointSizeF(navFont.pointSizeF() * 1.1);
    navigation_->setFont(navFont);
    stack_ = new QStackedWidget(central);
    row->addWidget(navigation_);
    row->addWidget(stack_, 1);
    column->addLayout(row, 1);
    setCentralWidget(central);

    status_ = new QLabel(this);
    statusBar()->addWidget(status_, 1);
    connect(navigation_, &QListWidget::currentRowChanged, stack_, &QStackedWidget::setCurrentIndex);
    resize(1100, 760);
    retranslate();
}

void MainWindow::addPage(Page* page) {
    pages_.push_back(page);
    stack_->addWidget(page);
    navigation_->addItem(page->title());
    if (navigation_->currentRow() < 0) {
        navigation_->setCurrentRow(0);
    }
}

Page* MainWindow::page(const QString& pageId) const {
    for (Page* p : pages_) {
        if (p->pageId() == pageId) {
            return p;
        }
    }
    return nullptr;
}

void MainWindow::showPage(const QString& pageId) {
    for (std::size_t i = 0; i < pages_.size(); ++i) {
        if (pages_[i]->pageId() == pageId) {
            navigation_->setCurrentRow(static_cast<int>(i));
        }
    }
}

Page* MainWindow::currentPage() const {
    return qobject_cast<Page*>(stack_->currentWidget());
}

void MainWindow::retranslate() {
    setWindowTitle(text_("desktop.window.title"));
    for (std::size_t i = 0; i < pages_.size(); ++i) {
        pages_[i]->retranslate();
        navigation_->item(static_cast<int>(i))->setText(pages_[i]->title());
    }
    bannerClose_->setToolTip(text_("desktop.banner.close"));
}

void MainWindow::showBanner(const QString& message) {
    bannerLabel_->setText(message);
    banner_->show();
}

bool MainWindow::bannerVisible() const {
    return !banner_->isHidden();
}

QString MainWindow::bannerText() const {
    return bannerLabel_->text();
}

void MainWindow::setStatus(const QString& message) {
    status_->setText(message);
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (hideOnClose_) {
        hide();
        event->ignore();
        return;
    }
    event->ignore();
    emit closeRequested();
}

}  // namespace kestrel::desktop

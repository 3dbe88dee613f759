#pragma once
// The main window: a navigation list on the left, the registered pages stacked on the right, a
// banner for what the user should know once (no tray host), and a status line.

#include <QLabel>
#include <QListWidget>
#include <QMainWindow>
#include <QStackedWidget>
#include <vector>

#include "app/page.hpp"

class QToolButton;

namespace kestrel::desktop {

class UiText;

class MainWindow : public QMainWindow {
    Q_OBJECT

  public:
    explicit MainWindow(const UiText& text, QWidget* parent = nullptr);

    // Takes `page` into the stack (the window owns it) and lists it in the navigation.
    void addPage(Page* page);
    const std::vector<Page*>& pages() const { return pages_; }
    Page* page(const QString& pageId) const;
    void showPage(const QString& pageId);
    Page* currentPage() const;

    // Every text again in the current language, the pages' included.
    void retranslate();

    // A note across the top of the window until the user closes it.
    void showBanner(const QString& message);
    bool bannerVisible() const;
    QString bannerText() const;
    void setStatus(const QString& message);

    // Closing hides the window (the tray item stays) when this is set; otherwise it quits.
    void setHideOnClose(bool hide) { hideOnClose_ = hide; }

  signals:
    void closeRequested();  // the window's close button when it does not just hide
    void bannerDismissed();  // the user closed the banner

  protected:
    void closeEvent(QCloseEvent* event) override;

  private:
    const UiText& text_;
    QListWidget* navigation_ = nullptr;
    QStackedWidget* stack_ = nullptr;
    QWidget* banner_ = nullptr;
    QLabel* bannerLabel_ = nullptr;
    QToolButton* bannerClose_ = nullptr;
    QLabel* status_ = nullptr;
    std::vector<Page*> pages_;
    bool hideOnClose_ = false;
};

}  // namespace kestrel::desktop

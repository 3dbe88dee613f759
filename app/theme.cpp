#include "app/theme.hpp"

#include <QApplication>
#include <QStyle>
#include <QStyleFactory>
#include <cstdlib>

namespace kestrel::desktop {

QPalette themePalette(AppTheme theme, const QPalette& systemPalette) {
    switch (theme) {
        case AppTheme::system:
            return systemPalette;
        case AppTheme::light: {
            QPalette p;
            p.setColor(QPalette::Window, QColor(0xf6, 0xf7, 0xf9));
            p.setColor(QPalette::WindowText, QColor(0x1f, 0x23, 0x28));
            p.setColor(QPalette::Base, Qt::white);
            p.setColor(QPalette::AlternateBase, QColor(0xee, 0xf0, 0xf3));
            p.setColor(QPalette::Text, QColor(0x1f, 0x23, 0x28));
            p.setColor(QPalette::Button, QColor(0xee, 0xf0, 0xf3));
            p.setColor(QPalette::ButtonText, QColor(0x1f, 0x23, 0x28));
            p.setColor(QPalette::Highlight, QColor(0x2f, 0x6f, 0xb0));
            p.setColor(QPalette::HighlightedText, Qt::white);
            p.setColor(QPalette::ToolTipBase, QColor(0xff, 0xff, 0xee));
            p.setColor(QPalette::ToolTipText, Qt::black);
            p.setColor(QPalette::PlaceholderText, QColor(0x6e, 0x77, 0x81));
            return p;
        }
        case AppTheme::dark: {
            QPalette p;
            p.setColor(QPalette::Window, QColor(0x22, 0x25, 0x2b));
            p.setColor(QPalette::WindowText, QColor(0xe6, 0xe8, 0xeb));
            p.setColor(QPalette::Base, QColor(0x1a, 0x1c, 0x21));
            p.setColor(QPalette::AlternateBase, QColor(0x2a, 0x2e, 0x35));
            p.setColor(QPalette::Text, QColor(0xe6, 0xe8, 0xeb));
            p.setColor(QPalette::Button, QColor(0x2d, 0x31, 0x38));
            p.setColor(QPalette::ButtonText, QColor(0xe6, 0xe8, 0xeb));
            p.setColor(QPalette::Highlight, QColor(0x3d, 0x8b, 0xd9));
            p.setColor(QPalette::HighlightedText, Qt::white);
            p.setColor(QPalette::ToolTipBase, QColor(0x2d, 0x31, 0x38));
            p.setColor(QPalette::ToolTipText, QColor(0xe6, 0xe8, 0xeb));
            p.setColor(QPalette::PlaceholderText, QColor(0x8b, 0x94, 0x9e));
            p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x7a, 0x80, 0x88));
            p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x7a, 0x80, 0x88));
            p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x7a, 0x80, 0x88));
            return p;
        }
    }
    return systemPalette;
}

QIcon appIcon() {
    const char* dir = std::getenv("KESTREL_RESOURCE_DIR");
    return QIcon(QString::fromLocal8Bit(dir != nullptr ? dir : KESTREL_RESOURCE_DIR) +
                 QStringLiteral("/desktop/kestrel.svg"));
}

void applyTheme(AppTheme theme) {
    // The palette the desktop gave us, kept from before the first change.
    static const QPalette systemPalette = QApplication::palette();
    if (QStyle* fusion = QStyleFactory::create(QStringLiteral("Fusion")); fusion != nullptr) {
        QApplication::setStyle(fusion);
    }
    QApplication::setPalette(themePalette(theme, systemPalette));
}

}  // namespace kestrel::desktop

// Scaffolding: the desktop application's entry point is being written; for now it only proves
// that the Qt build works.
#include <QApplication>
#include <QLabel>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QLabel label(QStringLiteral("Kestrel"));
    label.show();
    return app.exec();
}

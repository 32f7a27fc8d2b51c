// vellora [file.pdf]: the desktop PDF editor.
#include "ContentView.h"
#include "Icons.h"
#include "VelloraApp.h"

#include <QApplication>

#include <cstdio>
#include <cstring>

namespace {

const char *usage = "Usage: vellora [options] [file.pdf ...]\n"
                    "\n"
                    "Vellora, a PDF editor: read, mark up, and change the pages of PDF files.\n"
                    "The last argument ending in .pdf is opened.\n"
                    "\n"
                    "Options:\n"
                    "  -h, --help     Show this help and exit.\n"
                    "  -v, --version  Show the version and exit.\n";

} // namespace

int main(int argc, char *argv[])
{
    // Answered before any window system is needed.
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            std::fputs(usage, stdout);
            return 0;
        }
        if (!std::strcmp(argv[i], "--version") || !std::strcmp(argv[i], "-v")) {
            std::printf("vellora %s\n", VELLORA_VERSION);
            return 0;
        }
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName("Vellora");
    QApplication::setApplicationVersion(VELLORA_VERSION);
    QApplication::setOrganizationName("Vellora");
    // Matches the installed vellora.desktop, so Wayland compositors find the icon.
    QGuiApplication::setDesktopFileName("vellora");
    QApplication::setWindowIcon(QIcon::fromTheme("vellora", Icons::get("x-office-document")));

    VelloraApp vellora(QApplication::arguments());
    vellora.newWindow()->show();
    return QApplication::exec();
}

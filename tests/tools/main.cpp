// One executable for the tools' tests (each MuPDF-linked binary is large).
#include <QApplication>

int runToolsTests(int argc, char **argv);
int runToolbarTests(int argc, char **argv);

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    int failures = runToolsTests(argc, argv);
    failures += runToolbarTests(argc, argv);
    return failures;
}

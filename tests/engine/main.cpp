// One executable for the engine's tests: each MuPDF-linked binary carries ~40 MB of fonts.
#include <QApplication>

int runEngineTests(int argc, char **argv);
int runIntegrityTests(int argc, char **argv);

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    int failures = runEngineTests(argc, argv);
    failures += runIntegrityTests(argc, argv);
    return failures;
}

// One executable for the engine's tests: each MuPDF-linked binary carries ~40 MB of fonts.
#include <QApplication>
#include <QString>

int runEngineTests(int argc, char **argv);
int runIntegrityTests(int argc, char **argv);
int runProducerTests(int argc, char **argv);
int runFontTests(int argc, char **argv);
int runFormTests(int argc, char **argv);
int runSaveWorker(const QString &path);

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    // The process the save tests kill while it saves.
    if (argc == 3 && QByteArray(argv[1]) == "--save-worker")
        return runSaveWorker(QString::fromLocal8Bit(argv[2]));
    int failures = runEngineTests(argc, argv);
    failures += runIntegrityTests(argc, argv);
    failures += runProducerTests(argc, argv);
    failures += runFontTests(argc, argv);
    failures += runFormTests(argc, argv);
    return failures;
}

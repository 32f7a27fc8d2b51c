// One executable for the document core's tests (each MuPDF-linked binary is large).
#include <QApplication>

int runDocumentModelTests(int argc, char **argv);
int runRecentDocumentsTests(int argc, char **argv);

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    // The recent-files store of the tests lives in a folder of their own.
    const QByteArray home = qgetenv("TMPDIR").isEmpty() ? QByteArray("/tmp") : qgetenv("TMPDIR");
    qputenv("XDG_DATA_HOME", home + "/vellora-test-data-" + QByteArray::number(QCoreApplication::applicationPid()));
    int failures = runDocumentModelTests(argc, argv);
    failures += runRecentDocumentsTests(argc, argv);
    return failures;
}
